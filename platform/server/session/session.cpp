#include "session/session.h"

#include "base/log.h"
#include "command/table.h"
#include "ftp/reply.h"
#include "session/session_state.h"

#include <malloc.h>
#include <unistd.h>
#include <algorithm>

namespace tarvex::server {

namespace {

constexpr std::chrono::seconds END_LIMIT{1};
constexpr std::string_view GREETING = "GridFTP server ready.";

using cancel_ptr =
    std::unique_ptr<tarvex_cancel_s, decltype([](tarvex_cancel_s* cancel) { tarvex_cancel_destroy(&cancel); })>;

void session_try_stop(session& session) {
  if (session.ending && !session.running && session.output_sent) session.loop.stop();
}

/// Lines that wait behind a running operation: an ABOR cancels it now and is answered in its turn; what may be answered
/// now is, as long as nothing waits before it.
void session_attend(session& session) {
  for (auto& line : session.control.lines()) {
    if (!line.aborted && command_aborts(line.text)) line.aborted = operation_cancel(session, 426, "Transfer aborted.");
  }
  while (session.busy && command_run_at_once(session)) continue;
}

/// Runs the commands whose turn it is.
void session_pump(session& session) {
  while (!session.busy && !session.ending) {
    const auto line = session.control.next_line();
    if (!line) break;
    session_touch(session);
    command_run(session, *line);
  }
  if (session.busy) session_attend(session);
  if (!session.ending) session.control.resume();
}

bool session_open(session& session) {
  control_channel::events events;
  events.on_queued = [&session] { session_pump(session); };
  events.on_lost = [&session] { session_end(session, "connection lost"); };
  if (!session.control.start(std::move(events))) return false;
  session.loop.on_termination([&session] {
    session_reply(session, 421, "The server is shutting down.");
    session_end(session, "server shutdown");
  });
  session_reply(session, 220, GREETING);
  session_touch(session);
  return true;
}

/// Ends the plug-in's session and the operation thread. False: the thread hangs.
bool session_close_storage(session& session) {
  if (!session.worker) return true;
  if (session.running) return false;
  const auto* interface = session.setup.storage->interface;
  if (session.storage.started && interface && interface->destroy_func)
    session.worker->submit([interface, handle = session.storage.session] { interface->destroy_func(handle); });
  return session.worker->stop(END_LIMIT);
}

/// When memory is out the process goes at once: to take the session down would mean to wait for the operation thread.
void session_loop(session& session) {
  try {
    session.loop.run();
  } catch (const std::exception& error) {
    log_error("{}: {}", session_who(session), error.what());
    _exit(1);
  }
}

int session_serve(session& session) {
  if (!session_open(session)) return 1;
  session_loop(session);
  if (!session_close_storage(session)) {
    log_error("{}: the storage hangs; the process ends without it", session_who(session));
    _exit(1);
  }
  session.worker.reset();
  if (session.setup.storage->interface) storage_deactivate(*session.setup.storage);
  return session.exit_status;
}

/// An idle session is to keep little: freed memory goes back to the kernel, and few arenas share what is in use.
void memory_set_up() {
  mallopt(M_ARENA_MAX, 2);
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  mallopt(M_TRIM_THRESHOLD, 256 * 1024);
}

}  // namespace

session::session(const session_setup& with, tarvex_cancel_t cancel_source)
    : setup(with),
      control(loop, with.control_socket),
      data(loop),
      idle_timer(loop),
      delay_timer(loop),
      cancel(cancel_source) {}

void session_reply(session& session, int code, std::string_view line) {
  session.control.send(reply_format(code, line));
}

void session_reply(session& session, int code, const std::vector<std::string>& lines) {
  session.control.send(reply_format(code, lines));
}

void session_reply_block(session& session, int code, std::string_view first, const std::vector<std::string>& lines,
                         std::string_view last) {
  session.control.send(reply_block(code, first, lines, last));
}

void session_command_over(session& session) {
  session.busy = false;
  if (session.ending) return session_try_stop(session);
  session_touch(session);
  session_pump(session);
}

void session_touch(session& session) {
  using std::chrono::ceil, std::chrono::milliseconds, std::chrono::seconds;
  milliseconds limit = seconds(session.setup.config->idle_timeout_s);
  if (!session.login.logged_in) {
    const auto left = session.login.deadline - std::chrono::steady_clock::now();
    limit = std::clamp(ceil<milliseconds>(left), milliseconds(0), limit);
  }
  session.idle_timer.start(limit, [&session] {
    if (session.busy) return;
    session_reply(session, 421, "Idle for too long; closing the control connection.");
    session_end(session, "idle");
  });
}

void session_end(session& session, std::string_view log_reason) {
  if (std::exchange(session.ending, true)) return;
  log_info("{}: session ends ({})", session_who(session), log_reason);
  operation_cancel(session, 426, "The session ends.");
  session.data.close();
  session.delay_timer.cancel();
  session.idle_timer.start(END_LIMIT, [&session] { session.loop.stop(); });
  session.control.finish([&session] {
    session.output_sent = true;
    session_try_stop(session);
  });
}

std::string session_who(const session& session) {
  const std::string& name = session.login.logged_in ? session.login.name : session.login.user;
  return (name.empty() ? "-" : name) + "@" + session.control.peer().host;
}

int session_run(const session_setup& setup) {
  try {
    memory_set_up();
    tarvex_cancel_t source = nullptr;
    if (const int error = tarvex_cancel_init(&source); error != 0) {
      log_error("a session cannot start: error {}", error);
      close(setup.control_socket);
      return 1;
    }
    const cancel_ptr cancel(source);
    session session(setup, cancel.get());
    return session_serve(session);
  } catch (const std::exception& error) {
    log_error("a session cannot start: {}", error.what());
    return 1;
  }
}

}  // namespace tarvex::server
