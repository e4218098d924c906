#pragma once

#include "config/configuration.h"
#include "net/event_loop.h"
#include "storage/change_view.h"
#include "storage/credential.h"
#include "storage/disposal.h"
#include "storage/exchange_log.h"
#include "storage/operation.h"
#include "storage/operation_thread.h"
#include "storage/outgoing.h"
#include "storage/plugin.h"
#include "storage/root_prefix.h"
#include "storage/store.h"

#include <boost/asio/awaitable.hpp>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

struct change_slots;
struct spool_budget;

/// Whom the storage serves.
struct storage_user {
  std::string name;        ///< of the account
  std::string peer;        ///< the client's address, numeric
  std::string root = "/";  ///< folder in Box that the user sees as "/"; absolute, normal
};

/// Attributes of one item without the plug-in's strings.
struct item_stat {
  tarvex_gridftp_server_control_stat_t stat{};  ///< name and symlink_target are null
  bool folder() const;
  std::uint64_t size() const;  ///< bytes; a negative size counts as 0
};

struct stat_answer {
  outcome how;
  std::optional<item_stat> item;  ///< there when the outcome is good
};

/// A command for the storage: its command record with owned texts. What a command does not use stays empty.
struct storage_command {
  tarvex_gfs_command_type_t type = {};
  std::string path = {};       ///< absolute, normal
  std::string from_path = {};  ///< absolute, normal
  tarvex_off_t cksm_offset = 0;
  tarvex_off_t cksm_length = -1;
  std::string cksm_algorithm = {};
  int mode = 0;
  std::string assertion = {};
  std::string group = {};
  std::time_t time = 0;
  std::string text = {};  ///< what a SITE word came with that no other member takes
  std::function<void(const std::string&)> progress =
      {};  ///< I/O thread: takes what it says while it runs; empty: nothing
};

struct command_answer {
  outcome how;
  std::optional<std::string> text;  ///< what the storage has to say
};

/// Where an operation's bytes go or come from, besides a data channel.
using bytes_sink = std::function<void(std::span<const std::byte> bytes)>;

/// One login's session in the storage plug-in: its interface and handle, the thread that its operations run on, what
/// runs there now, and what is known of the changes that other sessions made. I/O thread, unless said otherwise.
///
/// One operation runs at a time; each is a wait of its caller, who alone starts the next. What may end such a wait is
/// `cancel`, and nothing else.
class storage_session {
 public:
  /// What it borrows of the process, for its life.
  struct host {
    event_loop& loop;
    const configuration& config;
    storage_plugin& plugin;
    change_slots* changes;     ///< null: there are no other sessions
    spool_budget* budget;      ///< null: none
    std::size_t budget_share;  ///< this session's
    credential_source credential;
    std::function<std::string()> who;  ///< any thread: names the client's session in the log
  };

  explicit storage_session(host of);
  ~storage_session();
  storage_session(const storage_session&) = delete;
  storage_session& operator=(const storage_session&) = delete;

  /// Starts the operation thread, once. \return false, and logged, when none can be had.
  [[nodiscard]] bool open();
  /// Runs `work` on the operation thread, for what blocks and belongs to no operation.
  boost::asio::awaitable<void> run_aside(std::function<void()> work);

  /// Activates the plug-in and starts its session for the user, whose root has to be there.
  boost::asio::awaitable<outcome> start(storage_user user);
  bool started() const { return started_; }
  /// Why no further operation can succeed, for the client; empty: they can. The session is to end then.
  const std::string& hopeless() const { return hopeless_; }
  /// Ends the plug-in's session; the next `start` may be for another user. Nothing may run.
  boost::asio::awaitable<void> leave();
  const std::string& username() const { return username_; }              ///< empty: the login name
  const std::string& home_directory() const { return home_directory_; }  ///< absolute

  /// Between paths as the client names them, which is how they come in and go out here, and paths in Box, which is what
  /// operations are about. Any thread, while a session is started.
  const root_prefix& root() const { return root_; }

  // What the plug-in can do.
  bool sends() const;
  bool receives() const;
  bool takes_commands() const;
  /// Whether it computes that checksum of a whole file itself.
  bool computes(std::string_view algorithm) const;
  const std::string& checksums() const { return checksums_; }  ///< "NAME:COST;..."; empty: none
  /// Files above so many bytes go up in parts.
  std::uint64_t chunked_minimum() const;

  /// Attributes of one item.
  boost::asio::awaitable<stat_answer> stat(std::string verb, std::string path);
  /// The same, of what a listing of the folder says now, whatever the storage knew.
  boost::asio::awaitable<stat_answer> look_again(std::string verb, std::string path);
  /// Lists a folder. `over` (may be null) carries the listing; what has begun on it is not listed twice.
  boost::asio::awaitable<outcome> list(std::string verb, std::string path, entries_call take,
                                       std::shared_ptr<transfer> over);
  /// Sends text over a transfer: no plug-in is asked, but it can be cancelled like everything.
  boost::asio::awaitable<outcome> say(std::string verb, std::string path, std::string text,
                                      std::shared_ptr<transfer> over);
  /// Sends ranges of a file over a transfer, in order and apart; only the last may go to the end of the file.
  boost::asio::awaitable<outcome> send(std::string verb, std::string path, std::vector<byte_range> ranges,
                                       std::shared_ptr<transfer> over);
  /// Has a range of a file sent to `sink`, which is called on the I/O thread.
  boost::asio::awaitable<outcome> read(std::string verb, std::string path, byte_range range, bytes_sink sink);
  /// Stores what comes over a transfer.
  boost::asio::awaitable<outcome> receive(std::string path, store_request request, std::shared_ptr<transfer> over);
  /// Carries a command out. The subject says what it means to other sessions.
  boost::asio::awaitable<command_answer> command(operation_subject subject, storage_command command);
  /// What stands at the path of a store, and above it.
  struct place {
    std::optional<item_stat> parent, target;
  };
  boost::asio::awaitable<outcome> look_at_place(std::string verb, std::string path, std::shared_ptr<place> found);

  /// What a broken store of this login has left in the plug-in; null: nothing. Borrowed until the next store.
  const unfinished_store* unfinished(std::string_view path) const;
  /// Makes way for a store that starts afresh: what a broken one has left under its path would be in its way.
  boost::asio::awaitable<outcome> forget_unfinished(std::string path);

  /// Called when an operation has begun to run: what was said before may be meant to cancel it.
  void on_run(std::function<void()> call) { on_run_ = std::move(call); }
  /// What runs; null: nothing.
  const operation* running() const { return running_; }
  /// Cancels what runs: its transfer ends with the reply `code` `why`, the plug-in's sleeps and requests end early.
  /// \return whether something ran.
  bool cancel(int code, const std::string& why);
  /// Ends the plug-in's session and the thread. Where uploads were left unfinished, the plug-in has `tidy_limit` to
  /// undo them at the other end. \return false when the thread hangs beyond `limit`: the process has to end without it.
  [[nodiscard]] bool finish(std::chrono::milliseconds limit, std::chrono::milliseconds tidy_limit);

  // For what the plug-in calls, and for the operation thread.
  event_loop& loop() const { return host_.loop; }
  const configuration& config() const { return host_.config; }
  const tarvex_gfs_storage_iface_t* interface() const { return host_.plugin.interface; }
  void* handle() const { return handle_.get(); }
  const std::shared_ptr<void>& session() const { return handle_; }
  exchange_log& exchanges() { return exchanges_; }
  disposal& leavings() { return leavings_; }  ///< I/O thread
  const host& environment() const { return host_; }
  /// Inside the work of `op`: starts the plug-in's session anew. The one before goes on where that fails, and is kept
  /// as long as an upload can be continued in it.
  owned_result renew_inside(operation& op);
  /// Box has refused the token: the next session of the plug-in is to have another.
  void note_token_refused() { token_refused_ = true; }
  bool token_refused() const { return token_refused_; }
  void give_up(std::string why) { hopeless_ = std::move(why); }
  /// Gives the storage its credential.
  tarvex_result_t hand_credential(bool renewal, std::optional<std::string>& document);
  const storage_user& user() const { return user_; }
  change_view& others() { return others_; }
  std::string who() const { return host_.who(); }
  void announce_checksums(std::string algorithms) { checksums_ = std::move(algorithms); }

 private:
  boost::asio::awaitable<void> run(operation& op);
  boost::asio::awaitable<outcome> look_at_root();
  outcome login_failure(outcome how) const;
  bool take_session(operation& started);
  boost::asio::awaitable<outcome> start_once();

  const host host_;
  tarvex_cancel_t cancel_ = nullptr;  ///< bound to the operation thread
  std::unique_ptr<operation_thread> thread_;
  operation* running_ = nullptr;
  std::function<void()> on_run_;

  // Written on the operation thread while an operation runs, else the I/O thread's.
  storage_user user_;
  root_prefix root_;
  std::shared_ptr<void> handle_;  ///< the plug-in's session; who holds it last ends it
  bool started_ = false;
  std::string checksums_;
  bool token_refused_ = false;
  std::uint64_t generation_ = 0;               ///< of the credential that was handed over last
  std::optional<outcome> credential_failure_;  ///< the last credential was none
  std::string hopeless_;
  std::string username_, home_directory_;
  change_view others_;  ///< operation thread
  exchange_log exchanges_;
  disposal leavings_;

  std::map<std::string, unfinished_store>
      unfinished_;  ///< by path in Box; I/O thread, and the operation thread while it renews
};

}  // namespace tarvex::server
