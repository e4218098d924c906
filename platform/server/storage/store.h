#pragma once

#include "base/checksum.h"
#include "net/event_loop.h"
#include "net/inbound.h"
#include "storage/operation.h"
#include "storage/outgoing.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>

namespace tarvex::server {

class spool;

/// What a client wants to store.
struct store_request {
  std::uint64_t size = 0;    ///< of the whole file; 0: it was not announced
  std::uint64_t offset = 0;  ///< goes on there with an upload that was cut off; 0: starts afresh
  std::uint64_t shift = 0;   ///< in extended block mode, added to what the blocks say of where they belong
  std::time_t modification_time = -1;
  bool replaces = false;          ///< an item of that name exists
  bool beside_file = false;       ///< and goes on as it is until all is stored, since this upload began so
  bool new_only = false;          ///< nothing that exists may give way
  std::shared_ptr<void> session;  ///< of the plug-in, which holds the upload that goes on; null: the one in use
};

/// A store that failed and left something in the plug-in's session.
struct unfinished_store {
  std::uint64_t size = 0;              ///< of the whole file
  std::uint64_t offset = 0;            ///< where it can go on; 0: nowhere
  bool beside_file = false;            ///< it replaces a file, which was left as it is until then
  std::shared_ptr<void> session = {};  ///< of the plug-in, which holds it
};

/// Counts a storage's reads as blocks. A storage that keeps what it has of a broken transfer fills one block at a time:
/// it asks for the whole block, then for what is left of it until it is full. So a read of just the length that the one
/// before left over goes on with its block, and any other begins one.
class block_counter {
 public:
  /// A read of `length` bytes has come to its end with `outcome`, whose offset is the file's.
  void note(std::size_t length, const read_outcome& outcome);
  /// Where the last block begins.
  std::uint64_t last() const { return start_; }
  /// Where the block begins that could not be filled; nothing: none failed.
  const std::optional<std::uint64_t>& failed() const { return failed_; }

 private:
  std::size_t left_ = 0;     // of the current block
  std::uint64_t start_ = 0;  // of the current block
  std::optional<std::uint64_t> failed_;
};

/// The plug-in's side of a store: the data that the client sends, as the plug-in reads them.
///
/// Of known size they are handed on as they come. Where no size was announced they are all taken in first, into a
/// spool, so that the plug-in is told the true size.
///
/// A client that dies closes its data connection like one that has sent everything, and on a network the end of its
/// control connection may come later by as long as the kernel takes to send a lost packet again. So without an
/// announced size the end counts after a grace, in which the control connection has to live on. Where an item of the
/// name exists, which the plug-in will delete first, the grace is over before the plug-in is called. Where none does,
/// the plug-in begins at once, and the last byte is held back meanwhile, so that Box's own time hides most of the wait.
///
/// An announced store onto an existing item is taken in first up to the size that goes up in one piece; above that the
/// plug-in is called once a good beginning is there. What exists is not touched for a client that sends nothing.
class store {
 public:
  /// `channel` begins to receive. I/O thread.
  store(storage_session& storage, std::shared_ptr<transfer> channel, const store_request& request);
  ~store();
  store(const store&) = delete;
  store& operator=(const store&) = delete;

  // Operation thread.

  /// Learns the size when there is need, and calls the plug-in.
  void run(operation& op);
  /// Makes ready to be run once more. \return false when the data are not there any more.
  bool rewind();

  // Any thread.

  const store_request& request() const { return request_; }
  /// As `tarvex_gridftp_server_get_write_range`.
  byte_range write_range() const;
  /// As `inbound::read`, with offsets of the file.
  [[nodiscard]] bool read(data_read wanted);
  /// SHA-1 of what was sent, in lower-case hex; empty: not known. `digest`: what the storage said of it to Box.
  std::string sha1(const std::string& digest);
  /// Bytes that have reached the storage.
  void count_stored(std::uint64_t bytes) { stored_ += bytes; }
  std::uint64_t stored_bytes() const { return stored_; }

  // I/O thread, once the plug-in is done.

  /// Whether the plug-in has read all data up to their end.
  bool complete() const { return end_passed_; }
  /// What the plug-in may have kept of it after it failed; nothing: it keeps none of files of this size.
  std::optional<unfinished_store> leftover() const;
  /// Where the store could go on if it broke off now; 0: nowhere. I/O thread, at any time.
  std::uint64_t restart_point() const;

 private:
  bool await_data(operation& op);
  bool prepare_anew(operation& op);
  bool take_in(operation& op);
  bool await_beginning(operation& op);
  bool await_life(operation& op);
  void call_plugin(operation& op);
  owned_result name_refusal(operation& op, void* session);
  bool may_run_again(operation& op);
  void fail(int code, const std::string& text);
  bool read_spooled(data_read wanted);
  void pass_end(data_read wanted, read_outcome outcome);
  void done(const data_read& wanted, read_outcome outcome);

  storage_session& storage_;
  const std::shared_ptr<transfer> channel_;
  store_request request_;  ///< its size is learnt before the plug-in is called
  const bool announced_;   ///< the size

  std::atomic<std::uint64_t> stored_{0};
  std::unique_ptr<spool> spool_;
  std::mutex feed_mutex_;
  std::uint64_t fed_ = 0;     ///< guarded by feed_mutex_: bytes of the spool that were read
  bool end_awaited_ = false;  ///< guarded by feed_mutex_: the last byte of the spool is held back
  std::chrono::steady_clock::time_point end_counts_;  ///< of a spool whose last byte is held back

  // I/O thread.
  bool end_passed_ = false;
  std::optional<checksum_stream> sha1_;  ///< of what went by, of files that go up in one piece
  std::unique_ptr<loop_timer> end_timer_;
  block_counter blocks_;
};

}  // namespace tarvex::server
