#pragma once

#include "net/data_channel.h"
#include "net/inbound.h"
#include "net/outbound.h"
#include "net/window_memory.h"

#include <boost/asio/awaitable.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace tarvex::server {

class block_sender;

/// How a transfer goes in extended block mode.
struct block_settings {
  unsigned connections_max = 1;      ///< that an upload may come on
  unsigned connections = 1;          ///< of a download
  std::size_t block_bytes = 0;       ///< of a download's blocks
  std::size_t window_bytes = 0;      ///< for blocks of an upload that come early
  memory_account account;            ///< that the window's memory is taken from
  std::chrono::seconds interval{0};  ///< between calls of `progress`; 0: none
  /// I/O thread: tells how many bytes were moved, and where an upload could go on if it broke off; 0: nowhere.
  std::function<void(std::uint64_t moved, std::uint64_t restart_point)> progress;
};

/// What a transfer receives.
struct incoming_data {
  std::optional<std::uint64_t> expected;         ///< exactly so many bytes; nothing: as many as come
  std::size_t window_bytes = 0;                  ///< that may wait to be read, in stream mode
  std::uint64_t start = 0;                       ///< of the file, where they begin
  std::uint64_t shift = 0;                       ///< added to the offset of each block
  std::function<std::uint64_t()> restart_point;  ///< I/O thread: where it could go on if it broke off; 0: nowhere
};

/// What a transfer needs of the client's session.
struct transfer_client {
  event_loop& loop;
  data_channel& data;
  std::chrono::milliseconds stall_limit;  ///< how long nothing may move on the data connection
  std::function<void()> opening;          ///< says that the data connection is about to be opened (150)
  std::function<bool()> present;          ///< whether the client's control connection is there
  /// Whether the client has said something since then.
  std::function<bool(std::chrono::steady_clock::time_point since)> speaks;
  std::chrono::milliseconds end_grace;        ///< how long a client that is dead may look alive
  bool require_close_notify = false;          ///< under TLS, before the end of what is received is believed
  std::optional<block_settings> blocks = {};  ///< nothing: stream mode
};

/// One use of the data channel, from the 150 reply to the closed connection. The final reply is the caller's. It sends,
/// unless it was told to receive before it begins.
class transfer : public std::enable_shared_from_this<transfer> {
 public:
  /// Why the data channel ended before its time.
  struct failure {
    int code = 0;
    std::string text;
  };

  explicit transfer(transfer_client client);
  ~transfer();

  // Any thread.

  /// Sends the 150 and opens the data channel, once; does not wait for it.
  void begin();
  bool begun() const { return begun_; }
  /// Hands a piece to the client, or text of which no more than a bounded amount waits: this blocks while the client is
  /// slow. \return false when the data channel has ended.
  [[nodiscard]] bool push(data_piece piece) { return sender_->push(std::move(piece)); }
  [[nodiscard]] bool push_text(std::string text);
  /// As `outbound::write_now`.
  std::size_t write_now(std::span<const unsigned char> bytes) { return sender_->write_now(bytes); }
  inbound& receiver() { return *receiver_; }                 ///< of one that receives
  bool client_present() const { return client_.present(); }  ///< I/O thread
  bool client_speaks(std::chrono::steady_clock::time_point since) const {
    return client_.speaks(since);
  }  ///< I/O thread
  std::chrono::milliseconds end_grace() const { return client_.end_grace; }
  bool broken() const { return broken_; }  ///< a failure was noted
  /// What is sent says where it belongs.
  bool takes_any_order() const { return client_.blocks.has_value(); }
  bool receives() const { return receiver_ != nullptr; }
  /// Bytes that went out, or that came in.
  std::uint64_t moved_bytes() const { return receiver_ ? receiver_->received_bytes() : sender_->sent_bytes(); }

  // I/O thread.

  /// Makes it receive.
  void receive(const incoming_data& what);
  /// That so many bytes will be sent: no more connections are opened than there are blocks.
  void announce(std::uint64_t bytes) { announced_ = bytes; }
  /// Who cancels the operation that the transfer serves when the data connection fails.
  void on_failure(std::function<void(int code, const std::string& why)> cancel) { cancel_ = std::move(cancel); }
  /// What the client will be told; the first failure counts. Ends nothing by itself.
  void note_failure(int code, const std::string& text);
  /// Adds a sentence to the failure.
  void explain_failure(const std::string& more);
  /// Ends it at once.
  void fail(int code, const std::string& text);
  /// Ends it: sends what is there when `success`, or drops it, and closes the data connection.
  boost::asio::awaitable<void> finish(bool success);
  const std::optional<failure>& failed() const { return failed_; }
  std::chrono::duration<double> elapsed() const { return std::chrono::steady_clock::now() - started_; }

 private:
  static boost::asio::awaitable<void> open(std::shared_ptr<transfer> self);
  static boost::asio::awaitable<void> accept_lanes(std::shared_ptr<transfer> self);
  static boost::asio::awaitable<void> open_lane(std::shared_ptr<transfer> self);
  void open_lanes();
  void tell_progress();
  void close_down();
  void cancel(int code, const std::string& why);

  const transfer_client client_;
  const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
  std::atomic<bool> begun_{false};
  std::atomic<bool> broken_{false};
  std::optional<failure> failed_;
  bool over_ = false;  ///< a wait for the connection that ends now says nothing
  std::function<void(int code, const std::string& why)> cancel_;
  std::unique_ptr<outbound> sender_;
  block_sender* lanes_ = nullptr;  ///< the sender in extended block mode
  unsigned lanes_asked_ = 0;
  unsigned lanes_missing_ = 0;
  std::optional<std::uint64_t> announced_;
  std::unique_ptr<inbound> receiver_;
  std::function<std::uint64_t()> restart_point_;
  loop_timer progress_timer_;
};

}  // namespace tarvex::server
