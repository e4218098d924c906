#pragma once

#include "config/accounts.h"
#include "ftp/facts.h"
#include "net/control_channel.h"
#include "net/data_channel.h"
#include "net/event_loop.h"
#include "session/session.h"
#include "storage/operation.h"
#include "storage/operation_thread.h"
#include "storage/relist.h"
#include "storage/store.h"

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

/// Who is logged in, and how the way there went.
struct login_state {
  std::string user;  ///< of the last USER; empty: none since
  bool logged_in = false;
  unsigned failures = 0;
  unsigned bad_commands = 0;
  /// Who has not logged in by then is sent away, whatever else was said.
  std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  account who;       ///< set before the plug-in's start call
  std::string name;  ///< the storage's name for the user
};

/// What the plug-in told about itself.
struct storage_state {
  void* session = nullptr;  ///< the plug-in's own session
  bool started = false;
  std::string checksums;  ///< "NAME:COST;..."
};

/// What the client has set with commands.
struct client_settings {
  std::string directory = "/";
  char type = 'A';
  bool epsv_only = false;
  std::int64_t restart_offset = 0;
  std::uint64_t announced_size = 0;    ///< of the next store; 0: none
  std::time_t modification_time = -1;  ///< of the next stored file; -1: none
  std::string rename_from;             ///< of an RNFR just before; empty: none
  std::string hash_algorithm = "SHA1";
  facts_mask mlst_facts = ALL_FACTS;
};

/// Everything about one session. Touched on the I/O thread only, unless a member's own type says otherwise; the
/// operation thread works on operations, and on `login.who` and `storage` while a session start runs.
struct session {
  session(const session_setup& with, tarvex_cancel_t cancel_source);

  const session_setup setup;
  event_loop loop;
  control_channel control;
  data_channel data;
  loop_timer idle_timer;
  loop_timer delay_timer;

  login_state login;
  storage_state storage;
  client_settings settings;
  std::map<std::string, unfinished_store> unfinished;  ///< by path
  change_view others;                                  ///< operation thread

  tarvex_cancel_t cancel;  ///< bound to the operation thread
  std::unique_ptr<operation_thread> worker;
  std::unique_ptr<operation> running;

  bool busy = false;    ///< a command is not over yet; later lines wait
  bool ending = false;  ///< no more commands
  bool output_sent = false;
  int exit_status = 0;
};

/// Sends a reply.
void session_reply(session& session, int code, std::string_view line);
void session_reply(session& session, int code, const std::vector<std::string>& lines);
/// Sends "CODE-first", the lines as they stand behind a blank, "CODE last" (RFC 2389, RFC 3659).
void session_reply_block(session& session, int code, std::string_view first, const std::vector<std::string>& lines,
                         std::string_view last);

/// The command that made the session busy is over: the next line's turn.
void session_command_over(session& session);

/// Ends the session: cancels what runs, sends what is waiting. `log_reason` goes to the log.
void session_end(session& session, std::string_view log_reason);

/// "user@peer" for the log; "-" for nobody.
std::string session_who(const session& session);

/// The idle time starts anew.
void session_touch(session& session);

}  // namespace tarvex::server
