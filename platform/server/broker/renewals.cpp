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

/// The storage renews a token that has less to live than this, and uses one that has more.
constexpr seconds LEAST_LIFE{100};
/// Between its look at the token and its request the storage waits for its turn at Box. The first use of a new token
/// ends the old one, and with it the requests of others that have looked and wait: they get this time to go out.
constexpr seconds TURN{4};
/// A login with a token that is about to reach LEAST_LIFE would fail. Where nobody minds it is renewed before.
constexpr seconds BRINK{5};
constexpr std::size_t THREADS = 8;

/// Waits until nobody uses the token any more that is to be replaced, where it is one that others may use. \return the
/// least life of a token that need not be replaced.
seconds wait_for_others(const token_store& store, const std::string& name, bool alone, int cancel_fd) {
  if (alone) return LEAST_LIFE + BRINK;
  const token_store::reading now = store.read(name);
  if (!now.record) return LEAST_LIFE;
  const auto left = now.record->current.expires_at - std::chrono::system_clock::now();
  if (left < LEAST_LIFE - TURN || left >= LEAST_LIFE + BRINK) return LEAST_LIFE;
  pollfd awaited = {cancel_fd, POLLIN, 0};
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(left - (LEAST_LIFE - TURN));
  (void)poll(&awaited, 1, static_cast<int>(wait.count()));
  return LEAST_LIFE;
}

void log_answer(const std::string& name, std::uint64_t generation_before, const renewal_answer& answer) {
  if (answer.how == verdict::good) {
    if (answer.record->generation == generation_before) return;
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
    std::uint64_t before = 0;
    try {
      const seconds least = refused != 0 ? LEAST_LIFE : wait_for_others(store_, name, alone, cancel_fd_);
      if (const auto now = store_.read(name); now.record) before = now.record->generation;
      answer = renew_account(setup(), name, least, refused);
    } catch (const std::exception& error) {
      answer = {verdict::unavailable, std::nullopt, error.what()};
    }
    log_answer(name, before, answer);
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
    const auto seen = store_.read(name);
    if (!seen.record || !seen.record->previous || seen.record->generation != generation) return;
    const token_store::lock held = store_.lock_account(name, seconds(1));
    if (!held) return;
    auto now = store_.read(name);
    if (!now.record || now.record->generation != generation) return;
    now.record->previous.reset();
    if (const store_error error = store_.write(name, *now.record); !error.empty())
      log_warning("account {}: {}", name, error);
  });
}

void renewals::recover() {
  if (config_.broker_directory.empty()) return;
  for (const std::string& name : store_.names()) {
    const auto now = store_.read(name);
    if (!now.record || !now.record->attempt_open) continue;
    log_info("account {}: a renewal was cut short; it is made again", name);
    want(name, now.record->generation, false, [](const renewal_answer&) {});
  }
}

void renewals::renew_idle(const std::function<bool(const std::string& name)>& in_use) {
  if (config_.broker_directory.empty()) return;
  const auto now = std::chrono::system_clock::now();
  for (const std::string& name : store_.names()) {
    const auto seen = store_.read(name);
    if (!seen.record || seen.record->grant != grant_kind::box || seen.record->sign_in_needed || in_use(name)) continue;
    if (now - seen.record->renewed_at < seconds(config_.broker_idle_renewal_s)) continue;
    want(name, seen.record->generation, true, [](const renewal_answer&) {});
  }
}

}  // namespace tarvex::server
