#include "broker/renewals.h"

#include "base/log.h"
#include "config/secret_file.h"

#include <poll.h>
#include <boost/asio/post.hpp>

#include <algorithm>
#include <utility>

namespace tarvex::server {

namespace asio = boost::asio;

namespace {

using std::chrono::seconds;
using verdict = renewal_answer::verdict;

/// Between its look at the token and its request the storage waits for its turn at Box. The first use of a new token
/// ends the old one, and with it the requests of others that have looked and wait: they get this time to go out.
constexpr seconds TURN{4};
/// A login with a token that is about to reach LEAST_TOKEN_LIFE would fail. Where nobody minds it is renewed before.
constexpr seconds BRINK{5};
constexpr std::size_t THREADS = 8;

/// Waits until nobody uses the token any more that is to be replaced, where it is one that others may use. \return the
/// least life of a token that need not be replaced.
seconds wait_for_others(const token_store& store, const std::string& name, bool alone, int cancel_fd) {
  if (alone) return LEAST_TOKEN_LIFE + BRINK;
  const token_store::reading now = store.read(name);
  if (!now.record) return LEAST_TOKEN_LIFE;
  const auto left = now.record->current.expires_at - std::chrono::system_clock::now();
  if (left < LEAST_TOKEN_LIFE - TURN || left >= LEAST_TOKEN_LIFE + BRINK) return LEAST_TOKEN_LIFE;
  pollfd awaited = {cancel_fd, POLLIN, 0};
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(left - (LEAST_TOKEN_LIFE - TURN));
  (void)poll(&awaited, 1, static_cast<int>(wait.count()));
  return LEAST_TOKEN_LIFE;
}

void log_answer(const std::string& name, const renewal_answer& answer) {
  if (answer.how == verdict::good) {
    if (!answer.renewed) return;
    log_info("account {}: token {} is good until {} s from now", name, answer.record->generation,
             std::chrono::floor<seconds>(answer.record->current.expires_at - std::chrono::system_clock::now()).count());
  } else if (answer.how == verdict::sign_in_needed) {
    log_error("account {}: sign-in needed ({}); run: tarvex-gridftp-server account add, with its name and grant", name,
              answer.reason);
  } else {
    log_error("account {}: no token: {}", name, answer.reason);
  }
}

}  // namespace

std::string configured_app(const configuration& config, oauth_app& out) {
  out.client_id = config.box_client_id;
  if (out.client_id.empty()) return "client_id in [box] is missing";
  if (config.box_client_secret_file.empty()) return "client_secret_file in [box] is missing";
  return client_secret_read(config, out.client_secret);
}

token_endpoint configured_endpoint(const configuration& config) {
  return {.token_url = config.box_token_url,
          .revoke_url = config.box_revoke_url,
          .https = {.ca_file = config.box_ca_file, .proxy = config.box_proxy}};
}

renewals::renewals(asio::io_context& loop, const configuration& config, int cancel_fd)
    : loop_(loop), config_(config), cancel_fd_(cancel_fd), endpoint_(configured_endpoint(config)), threads_(THREADS) {}

renewals::~renewals() {
  threads_.join();
}

std::string renewals::open() {
  return config_.broker_directory.empty() ? std::string() : store_.open(config_);
}

renewal_setup renewals::setup() {
  return {.store = store_,
          .endpoint = endpoint_,
          .app = [this](oauth_app& out) { return configured_app(config_, out); },
          .cancel_fd = cancel_fd_};
}

void renewals::want(const std::string& name, std::uint64_t refused, bool alone, taker take) {
  const bool idle = !waiting_.contains(name);
  waiting_[name].push_back({refused, alone, std::move(take)});
  if (idle) begin(name);
}

/// One piece of work for all who wait by now.
void renewals::begin(const std::string& name) {
  std::vector<wish> wishes = std::exchange(waiting_[name], {});
  std::uint64_t refused = 0;
  bool alone = true;
  for (const wish& one : wishes) {
    refused = std::max(refused, one.refused);
    alone = alone && one.alone;
  }
  auto work = [this, name, refused, alone, wishes = std::move(wishes)]() mutable {
    renewal_answer answer;
    try {
      const seconds least = refused != 0 ? LEAST_TOKEN_LIFE : wait_for_others(store_, name, alone, cancel_fd_);
      answer = renew_account(setup(), name, least, refused);
    } catch (const std::exception& error) {
      answer = {.how = verdict::unavailable, .reason = error.what()};
    }
    log_answer(name, answer);
    auto shared = std::make_shared<renewal_answer>(std::move(answer));
    asio::post(loop_, [this, name, shared, wishes = std::move(wishes)]() mutable {
      end(name, std::move(*shared), std::move(wishes));
    });
  };
  asio::post(threads_, std::move(work));
}

void renewals::end(const std::string& name, renewal_answer answer, std::vector<wish> wishes) {
  for (const wish& one : wishes) one.take(answer);
  const auto more = waiting_.find(name);
  if (more->second.empty()) {
    waiting_.erase(more);
  } else {
    begin(name);
  }
}

void renewals::note_used(const std::string& name, std::uint64_t generation) {
  asio::post(threads_, [this, name, generation] {
    const token_store::lock held = store_.lock_account(name, seconds(1));
    if (!held) return;
    auto now = store_.read(name);
    if (!now.record || !now.record->previous || now.record->generation != generation) return;
    now.record->previous.reset();
    if (const store_error error = store_.write(name, *now.record); !error.empty())
      log_warning("account {}: {}", name, error);
  });
}

void renewals::look_through(std::function<bool(const token_record& record)> wanted,
                            std::function<void(const std::string& name, std::uint64_t generation)> found) {
  if (config_.broker_directory.empty()) return;
  asio::post(threads_, [this, wanted = std::move(wanted), found = std::move(found)] {
    for (const std::string& name : store_.names()) {
      const auto now = store_.read(name);
      if (!now.record || !wanted(*now.record)) continue;
      asio::post(loop_, [found, name, generation = now.record->generation] { found(name, generation); });
    }
  });
}

void renewals::recover() {
  look_through([](const token_record& record) { return record.attempt_open; },
               [this](const std::string& name, std::uint64_t generation) {
                 log_info("account {}: a renewal was cut short; it is made again", name);
                 want(name, generation, false, [](const renewal_answer&) {});
               });
}

void renewals::renew_idle(std::function<bool(const std::string& name)> in_use) {
  const auto before = std::chrono::system_clock::now() - seconds(config_.broker_idle_renewal_s);
  look_through(
      [before](const token_record& record) {
        return record.grant == grant_kind::box && !record.sign_in_needed && record.renewed_at <= before;
      },
      [this, in_use = std::move(in_use)](const std::string& name, std::uint64_t generation) {
        if (!in_use(name)) want(name, generation, true, [](const renewal_answer&) {});
      });
}

}  // namespace tarvex::server
