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
      accounts(*setup.accounts),
      control(loop, setup.control_socket),
      data(loop),
      storage({.loop = loop,
               .config = config,
               .plugin = *setup.storage,
               .changes = setup.changes,
               .budget = setup.budget,
               .budget_share = setup.budget_share,
               .who = [this] { return who(); }}),
      end_wake_(loop) {}

void session::reply(int code, std::string_view line) {
  control.send(reply_format(code, line));
}

void session::reply(int code, const std::vector<std::string>& lines) {
  control.send(reply_format(code, lines));
}

void session::reply_block(int code, std::string_view first, const std::vector<std::string>& inner,
                          std::string_view last) {
  control.send(server::reply_block(code, first, inner, last));
}

std::shared_ptr<transfer> session::make_transfer(const std::string& path) {
  // Whoever ends explicitly needs no grace.
  const bool blocks = settings.block_mode;
  return std::make_shared<transfer>(transfer_client{
      .loop = loop,
      .data = data,
      .stall_limit = std::chrono::seconds(config.idle_timeout_s),
      .opening = [this, path] { reply(150, "Opening data connection for " + path + "."); },
      .present = [this] { return control.present(); },
      .speaks = [this](std::chrono::steady_clock::time_point since) { return last_line_ > since; },
      .end_grace = blocks ? std::chrono::milliseconds(0) : end_grace(),
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
