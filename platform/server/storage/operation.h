#pragma once

#include "storage/outcome.h"
#include "tarvex_common.hpp"
#include "tarvex_gridftp_server.h"

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace tarvex::server {

class outgoing;
class storage_session;
class store;
class transfer;

enum class operation_kind { session_start, stat, command, transfer };

/// What an operation is about, for the plug-in, for the log, and for what other sessions are told: see operation_run.h.
struct operation_subject {
  std::string verb;            ///< of the FTP command
  std::string path;            ///< in Box; absolute, normal
  std::string from_path = {};  ///< a rename's source
  bool changes = false;        ///< changes what is stored
  bool adds = false;           ///< makes the item `path`, if it is not there
  bool removes = false;        ///< removes the item `path`
  bool replaces = false;       ///< an item stands at `path` that gives way to another
  bool lists = false;          ///< lists the folder `path`
  bool existing_may_be_new =
      false;  ///< PATH_EXISTS may mean that another session was quicker; trying again does no harm
};

/// Takes the entries of a listing, batch by batch, on the operation thread; it may wait there.
using entries_call = std::function<void(const tarvex_gridftp_server_control_stat_t* entries, int count)>;

}  // namespace tarvex::server

/// One piece of work for the plug-in, which knows it by this name.
///
/// The I/O thread fills it in, the operation thread runs `work`, and then it is the I/O thread's again. What the two
/// touch at the same time is atomic or has a lock of its own.
struct tarvex_gfs_operation_s {
  tarvex_gfs_operation_s(tarvex::server::storage_session& of, tarvex::server::operation_kind what,
                         tarvex::server::operation_subject about)
      : storage(of), kind(what), subject(std::move(about)) {}

  tarvex::server::storage_session& storage;
  const tarvex::server::operation_kind kind;
  const tarvex::server::operation_subject subject;

  std::function<void(tarvex_gfs_operation_s&)> work;  ///< operation thread: calls the plug-in
  /// Operation thread: makes ready for another run of `work`, which has to find everything as the first run did.
  /// False: bytes have flowed, and it cannot be run again. Empty: there is nothing to make ready.
  std::function<bool()> rewind;

  // How it ended. Written on the operation thread.
  std::atomic<bool> finished{false};
  std::atomic<bool> misused{false};    ///< not completed, completed twice or by the call of another kind
  std::atomic<bool> cancelled{false};  ///< set by the I/O thread
  tarvex::owned_result result;
  int default_code = 550;       ///< of the reply to an error that names none
  bool storage_failed = false;  ///< by the storage's own account
  bool certain = true;          ///< what was done is known by what Box answered
  bool replaces = false;        ///< an item that came while the work was on its way
  bool moves_folder = false;    ///< what is removed or renamed is a folder
  bool token_refused = false;   ///< Box took the token no more while it ran, and it could not be run again
  std::string remark;           ///< a line more for the reply to a failure

  // Session start: what the plug-in hands over.
  void* handle = nullptr;
  std::string username;
  std::string home_directory;

  // Stat.
  tarvex::server::entries_call batch;

  // Command.
  std::optional<std::string> text;                   ///< what the storage has to say
  std::function<void(const std::string&)> progress;  ///< I/O thread; empty: the client takes no progress replies

  // Transfer, and a listing over the data channel.
  std::shared_ptr<tarvex::server::transfer> transfer;
  std::shared_ptr<tarvex::server::outgoing> sends;  ///< of a transfer from the storage
  std::shared_ptr<tarvex::server::store> store;     ///< of a transfer to the storage
};

namespace tarvex::server {

using operation = tarvex_gfs_operation_s;

/// Runs `work` on the calling thread. No exception of ours or of a plug-in in C++ leaves it; what returns without
/// having completed the operation is a misuse.
void operation_work(operation& op) noexcept;

/// Enters an operation's end. Takes over `result`. \return false when this was a misuse, which is logged.
bool operation_complete(operation& op, operation_kind by, tarvex_result_t result);

/// Whether the plug-in did what was asked.
bool operation_succeeded(const operation& op);

/// The operation's path, and a text about it, as the client knows them: without the account's root.
std::string operation_path(const operation& op);
std::string operation_text(const operation& op, std::string_view text);

/// What the client is to be told. A change that was made before it could be cancelled counts as made.
outcome operation_outcome(const operation& op);

}  // namespace tarvex::server
