#pragma once

#include "config/configuration.h"
#include "net/control_channel.h"
#include "net/data_channel.h"
#include "net/event_loop.h"
#include "net/tls_session.h"
#include "net/wake.h"
#include "session/broker_link.h"
#include "session/client_settings.h"
#include "session/login_state.h"
#include "session/session_setup.h"
#include "storage/storage_session.h"
#include "storage/transfer.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

/// One client: who it is, what it has set, its connections, and its login's session in the storage. I/O thread.
class session {
 public:
  /// Takes over the control socket. Throws std::system_error when the process is out of something.
  explicit session(const session_setup& setup);
  session(const session&) = delete;
  session& operator=(const session&) = delete;

  const configuration& config;
  event_loop loop;
  broker_link broker;
  control_channel control;
  const std::unique_ptr<tls_session> tls;  ///< null: TLS is not offered
  data_channel data;
  storage_session storage;
  login_state login;
  shared_limits* const limits;  ///< null: nobody counts
  const std::size_t share;      ///< of the limits
  client_settings settings;

  /// Sends a reply.
  void reply(int code, std::string_view line);
  void reply(int code, const std::vector<std::string>& lines);
  /// Sends "CODE-first", the inner lines as they stand behind a blank, "CODE last" (RFC 2389, RFC 3659).
  void reply_block(int code, std::string_view first, const std::vector<std::string>& inner, std::string_view last);

  /// The last reply: what a command that is cut short has to say afterwards is not sent.
  void reply_last(int code, std::string_view line);
  /// Goes on under TLS, after an invitation that is sent as it stands; none when the client begins by itself.
  /// \return false when that failed, and the session has ended.
  boost::asio::awaitable<bool> secure(std::string invitation);
  /// Whether data connections are private from now on.
  void protect_data(bool on);

  /// A use of the data channel for a command about `path`.
  std::shared_ptr<transfer> make_transfer(const std::string& path);

  /// The client has said something.
  void note_line() { last_line_ = std::chrono::steady_clock::now(); }

  /// Ends the session: cancels what runs, sends what is waiting. `log_reason` goes to the log.
  void end(std::string_view log_reason);
  bool ending() const { return ending_; }
  /// `ending` is called once when the session begins to end, `sent` when nothing is left to send after that.
  void on_end(std::function<void()> ending, std::function<void()> sent) {
    ending_call_ = std::move(ending);
    sent_call_ = std::move(sent);
  }

  /// A wait that the end of the session cuts short.
  boost::asio::awaitable<void> pause(std::chrono::milliseconds time);

  /// "user@peer" for the log; "-" for nobody.
  std::string who() const;

 private:
  credential_reply credential(bool renewal, std::uint64_t refused);
  std::chrono::milliseconds end_grace() const;
  block_settings transfer_blocks();

  bool ending_ = false;
  bool replied_last_ = false;
  std::chrono::steady_clock::time_point last_line_{};
  std::function<void()> ending_call_, sent_call_;
  wake end_wake_;
};

}  // namespace tarvex::server
