#include "session_process.h"

#include "base/leak_check.h"
#include "base/log.h"
#include "command/dispatch.h"
#include "session/session.h"
#include "storage/transfer.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <utility>

namespace tarvex::server {

namespace asio = boost::asio;

namespace {

constexpr std::chrono::seconds END_LIMIT{1};
constexpr std::chrono::seconds TIDY_LIMIT{5};  ///< for what the storage still has to undo at the other end
constexpr std::string_view GREETING = "GridFTP server ready.";

/// One session's loop: a command after the other, while what may not wait is dealt with beside it. When the server is
/// to stop, what runs may go on for a while, and nothing new is begun.
class conversation {
 public:
  conversation(session& client, bool implicit_tls)
      : client_(client), implicit_tls_(implicit_tls), limit_(client.loop), grace_(client.loop) {}

  /// \return false when the socket is no connection.
  bool open();

 private:
  asio::awaitable<void> serve();
  void greet();
  void attend();
  void watch_idleness();
  void stop();
  void cut_short();
  void say_farewell();
  void stop_when_over();

  session& client_;
  const bool implicit_tls_;
  loop_timer limit_, grace_;
  bool busy_ = false;      ///< a command is not over yet; later lines wait
  bool stopping_ = false;  ///< the server is to stop
  bool served_ = false;    ///< no more commands
  bool sent_ = false;      ///< no more replies
};

bool conversation::open() {
  control_channel::events events;
  events.on_queued = [this] { attend(); };
  events.on_lost = [this] { client_.end("connection lost"); };
  // Who has said all may still read its replies. Of one whose data are on their way it is the sign that it died: a
  // killed client's connections end like this, and nobody would take what is still to come.
  events.on_half_closed = [this] {
    const operation* const running = client_.storage.running();
    if (running && running->transfer) client_.end("connection lost");
  };
  if (!client_.control.start(std::move(events), implicit_tls_)) return false;
  client_.loop.on_signal(SIGTERM, [this] { stop(); });
  // A peer that does not read its last reply, or a storage that does not come back, is not waited for longer.
  client_.on_end([this] { limit_.start(END_LIMIT, [this] { client_.loop.stop(); }); },
                 [this] {
                   sent_ = true;
                   stop_when_over();
                 });
  client_.storage.on_run([this] { attend(); });
  client_.broker.on_end([this](const std::string& text) {
    if (client_.ending()) return;
    client_.reply_last(421, text);
    client_.end("the account is closed");
  });
  client_.loop.spawn(serve());
  return true;
}

asio::awaitable<void> conversation::serve() {
  bool ready = !implicit_tls_;
  if (implicit_tls_) {
    std::string no_invitation;
    ready = co_await client_.secure(std::move(no_invitation));
  }
  if (ready) greet();
  while (!client_.ending()) {
    watch_idleness();
    const auto line = co_await client_.control.next_line();
    if (!line) break;
    busy_ = true;
    co_await command_run(client_, *line);
    busy_ = false;
    if (!client_.storage.hopeless().empty()) client_.end(client_.storage.hopeless());
    if (stopping_) say_farewell();
  }
  client_.end("connection lost");
  served_ = true;
  stop_when_over();
}

/// Implicit TLS protects data connections from the start.
void conversation::greet() {
  client_.settings.protection_buffer_told = implicit_tls_;
  client_.protect_data(implicit_tls_);
  client_.reply(220, GREETING);
}

/// Lines that wait behind a running command: an ABOR cancels it now and is answered in its turn; what may be answered
/// now is, as long as nothing waits before it.
void conversation::attend() {
  if (!busy_) return;
  if (!client_.control.lines().empty()) client_.note_line();
  for (auto& line : client_.control.lines())
    if (line.abort && !line.aborted) line.aborted = client_.storage.cancel(426, "Transfer aborted.");
  while (!client_.control.lines().empty() && command_need_not_wait(client_.control.lines().front())) {
    const auto line = client_.control.take_line();
    if (!line) break;
    client_.loop.spawn(command_run(client_, *line));
  }
}

/// The time in which a command has to come. Who has not logged in has no more than is left till the login's deadline.
void conversation::watch_idleness() {
  using std::chrono::ceil, std::chrono::milliseconds, std::chrono::seconds;
  if (client_.ending()) return;
  milliseconds limit = seconds(client_.config.idle_timeout_s);
  if (!client_.login.logged_in) {
    const auto left = client_.login.deadline - std::chrono::steady_clock::now();
    limit = std::clamp(ceil<milliseconds>(left), milliseconds(0), limit);
  }
  limit_.start(limit, [this] {
    if (busy_ || client_.ending()) return;
    client_.reply(421, "Idle for too long; closing the control connection.");
    client_.end("idle");
  });
}

/// A command that runs has the grace time; whoever has none to wait for goes at once.
void conversation::stop() {
  if (client_.ending() || std::exchange(stopping_, true)) return;
  if (!busy_) return say_farewell();
  grace_.start(std::chrono::seconds(client_.config.grace_time_s), [this] { cut_short(); });
}

/// The grace is over. A transfer gets its own reply before the farewell; a storage that does not come back from it is
/// not waited for.
void conversation::cut_short() {
  const operation* const running = client_.storage.running();
  if (!running || !running->transfer) return say_farewell();
  (void)client_.storage.cancel(426, "The transfer is cut short: the server is shutting down.");
  grace_.start(END_LIMIT, [this] { say_farewell(); });
}

void conversation::say_farewell() {
  if (client_.ending()) return;
  client_.reply_last(421, "The server is shutting down.");
  client_.end("server shutdown");
}

void conversation::stop_when_over() {
  if (served_ && sent_) client_.loop.stop();
}

/// When memory is out the process goes at once: to take the session down would mean to wait for the operation thread.
void run_loop(session& client) {
  try {
    client.loop.run();
  } catch (const std::exception& error) {
    log_error("{}: {}", client.who(), error.what());
    _exit(1);
  }
}

/// An idle session is to keep little: freed memory goes back to the kernel, and few arenas share what is in use.
void memory_set_up() {
  mallopt(M_ARENA_MAX, 2);
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  mallopt(M_TRIM_THRESHOLD, 256 * 1024);
}

int serve(const session_setup& setup) {
  session client(setup);
  conversation with_client(client, setup.implicit_tls && setup.tls);
  if (!with_client.open()) return 1;
  run_loop(client);
  if (!client.storage.finish(END_LIMIT, TIDY_LIMIT)) {
    log_error("{}: the storage hangs; the process ends without it", client.who());
    _exit(1);
  }
  return 0;
}

}  // namespace

int session_run(const session_setup& setup) {
  try {
    memory_set_up();
    const int status = serve(setup);
    return leak_check() ? status : 1;
  } catch (const std::exception& error) {
    log_error("a session cannot start: {}", error.what());
    return 1;
  }
}

}  // namespace tarvex::server
