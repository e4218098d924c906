#pragma once

#include "tarvex_common.hpp"
#include "tarvex_gridftp_server.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>

namespace tarvex::server {

struct session;
class store;
class transfer;

enum class operation_kind { session_start, stat, command, transfer };

struct byte_range {
  tarvex_off_t offset = 0;
  tarvex_off_t length = -1;  ///< -1: to the end
};

}  // namespace tarvex::server

/// One piece of work for the plug-in.
///
/// The I/O thread fills it in and starts it, the operation thread runs `work`, and the I/O thread gets it back for
/// `done`. What the two touch at the same time is atomic or has a lock of its own.
struct tarvex_gfs_operation_s {
  tarvex_gfs_operation_s(tarvex::server::session& of, tarvex::server::operation_kind what) : session(of), kind(what) {}

  tarvex::server::session& session;
  const tarvex::server::operation_kind kind;

  // What is asked, for the plug-in and for the log.
  std::string verb;
  std::string path;
  std::string from_path;                              ///< a rename's source; else empty
  std::function<void(tarvex_gfs_operation_s&)> work;  ///< operation thread: calls the plug-in
  std::function<void(tarvex_gfs_operation_s&)> done;  ///< I/O thread: answers the client

  // What it means to the account's other sessions, and they to it: see operation_relist.h.
  bool changes = false;              ///< changes what is stored
  bool removes = false;              ///< removes the item `path`
  bool lists = false;                ///< lists the folder `path`
  bool existing_may_be_new = false;  ///< PATH_EXISTS may mean that another session was quicker
  std::function<bool(tarvex_gfs_operation_s&)> rewind;

  // How it ended. Written on the operation thread, read by `done`.
  std::atomic<bool> finished{false};
  std::atomic<bool> misused{false};    ///< not completed, completed twice or by the call of another kind
  std::atomic<bool> cancelled{false};  ///< set by the I/O thread
  tarvex::owned_result result;

  // Session start.
  void* storage_session = nullptr;
  std::string username;
  std::string home_directory;

  // Stat: takes each batch on the operation thread.
  std::function<void(const tarvex_gridftp_server_control_stat_t*, int)> batch;

  // Command.
  std::optional<std::string> text;
  bool progress = false;  ///< the client takes 113 replies

  // Transfer, and listings over the data channel.
  std::shared_ptr<tarvex::server::transfer> transfer;
  std::shared_ptr<tarvex::server::store> store;  ///< of a transfer to the storage
  std::mutex order_mutex;
  std::deque<tarvex::server::byte_range> ranges;         ///< guarded by order_mutex: not yet asked for
  tarvex_off_t next_offset = 0;                          ///< guarded by order_mutex: the next byte to send
  std::function<void(std::span<const std::byte>)> sink;  ///< I/O thread: takes what is sent instead of a data channel
};

namespace tarvex::server {

using operation = tarvex_gfs_operation_s;

/// Hands the operation to the plug-in; the session is busy until `done` has run. I/O thread.
void operation_start(session& session, std::unique_ptr<operation> op);

/// Cancels what runs, if anything does: its transfer ends with the reply `code` `text`, the plug-in's sleeps and
/// requests end early. I/O thread. \return whether something ran.
bool operation_cancel(session& session, int code, const std::string& text);

/// Enters an operation's outcome. Takes over `result`. \return false when this was a misuse, which is logged.
bool operation_complete(operation& op, operation_kind by, tarvex_result_t result);

/// Whether the plug-in did what was asked.
bool operation_succeeded(const operation& op);

/// The reply to an operation that failed.
std::string operation_failure_reply(const operation& op);

/// Its first line without code, for the log.
std::string operation_failure_text(const operation& op);

}  // namespace tarvex::server
