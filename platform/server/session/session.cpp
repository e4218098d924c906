#include "session/session.h"

#include "base/log.h"
#include "ftp/markers.h"
#include "ftp/reply.h"
#include "storage/spool_budget.h"
#include "storage/transfer.h"

#include <algorithm>
#include <utility>

namespace tarvex::server {

session::session(const session_setup& setup)
    : config(*setup.config),
      broker(loop, descriptor(setup.broker_socket)),
      control(loop, setup.control_socket, setup.config->line_length),
      tls(setup.tls ? std::make_unique<tls_session>(setup.tls) : nullptr),
      data(loop),
      storage(
          {.loop = loop,
           .config = config,
           .plugin = *setup.storage,
           .changes = setup.changes,
           .budget = setup.budget,
           .budget_share = setup.share,
           .credential = {.get = [this](bool renewal, std::uint64_t refused) { return credential(renewal, refused); },
                          .used = [this](std::uint64_t generation) { broker.note_used(generation); }},
           .who = [this] { return who(); }}),
      limits(setup.limits),
      share(setup.share),
      end_wake_(loop) {
  login.deadline = std::chrono::steady_clock::now() + std::chrono::seconds(config.login_timeout_s);
}

credential_reply session::credential(bool renewal, std::uint64_t refused) {
  broker_says said = broker.credential(renewal, refused);
  return {said.code, std::move(said.text), std::move(said.credential), said.generation};
}

void session::reply(int code, std::string_view line) {
  if (!replied_last_) control.send(reply_format(code, line));
}

void session::reply_last(int code, std::string_view line) {
  reply(code, line);
  replied_last_ = true;
}

void session::reply(int code, const std::vector<std::string>& lines) {
  if (!replied_last_) control.send(reply_format(code, lines));
}

void session::reply_block(int code, std::string_view first, const std::vector<std::string>& inner,
                          std::string_view last) {
  if (!replied_last_) control.send(server::reply_block(code, first, inner, last));
}

boost::asio::awaitable<bool> session::secure(std::string invitation) {
  using std::chrono::milliseconds;
  const auto left = std::chrono::ceil<milliseconds>(login.deadline - std::chrono::steady_clock::now());
  auto engine = tls->control_engine();
  const auto error = co_await control.secure(std::move(engine), std::move(invitation), std::max(left, milliseconds(0)));
  if (error) {
    log_info("{}: TLS handshake failed: {}", who(), error.message());
    end("no TLS");
    co_return false;
  }
  log_info("{}: {}", who(), control.protection());
  co_return true;
}

void session::protect_data(bool on) {
  data.protection().tls = on ? tls.get() : nullptr;
  data.protection().must_resume = config.tls_require_resumption;
}

std::shared_ptr<transfer> session::make_transfer(const std::string& path) {
  // Whoever ends explicitly needs no grace.
  const bool blocks = settings.block_mode;
  return std::make_shared<transfer>(transfer_client{
      .loop = loop,
      .data = data,
      .stall_limit = std::chrono::seconds(config.stalled_timeout_s),
      .opening =
          [this, path] {
            if (data.protection().tls) control.renew_ticket();  // each data connection may use one up
            reply(150, "Opening data connection for " + path + ".");
          },
      .present = [this] { return control.present(); },
      .speaks = [this](std::chrono::steady_clock::time_point since) { return last_line_ > since; },
      .end_grace = blocks ? std::chrono::milliseconds(0) : end_grace(),
      .require_close_notify = config.tls_require_close_notify,
      .blocks = blocks ? std::optional(transfer_blocks()) : std::nullopt,
  });
}

block_settings session::transfer_blocks() {
  const storage_session::host& host = storage.environment();
  return {
      .connections_max = config.data_streams,
      .connections = std::min(settings.retrieve_connections, config.data_streams),
      .block_bytes = settings.retrieve_block_bytes,
      .window_bytes = config.window_bytes,
      .account = window_account(host.budget, host.budget_share),
      .interval = std::chrono::seconds(config.update_interval_s),
      .progress = [this](std::uint64_t moved,
                         std::uint64_t restart_point) { control.send(markers_format(moved, restart_point)); },
  };
}

/// A packet that tells of the end of the control connection may have to be sent again, more than once.
std::chrono::milliseconds session::end_grace() const {
  constexpr int TRIES = 4;
  return config.end_grace_ms == 0
             ? std::chrono::milliseconds(0)
             : std::max(std::chrono::milliseconds(config.end_grace_ms), TRIES * control.retransmission_timeout());
}

void session::end(std::string_view log_reason) {
  if (std::exchange(ending_, true)) return;
  log_info("{}: session ends ({})", who(), log_reason);
  if (ending_call_) ending_call_();
  (void)storage.cancel(426, "The session ends.");
  data.close();
  end_wake_.notify();
  control.finish([this] {
    if (sent_call_) sent_call_();
  });
}

boost::asio::awaitable<void> session::pause(std::chrono::milliseconds time) {
  if (!ending_) (void)co_await end_wake_.wait_for(time);
}

std::string session::who() const {
  const std::string& name = login.logged_in ? login.name : login.user;
  return (name.empty() ? "-" : name) + "@" + control.peer().host();
}

}  // namespace tarvex::server
