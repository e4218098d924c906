#pragma once

#include "net/data_receiver.h"
#include "net/data_sender.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tarvex::server {

struct session;

/// One use of the data channel, from the 150 reply to the closed connection. The final reply is the caller's. It sends,
/// unless it was told to receive before it begins.
class transfer : public std::enable_shared_from_this<transfer> {
 public:
  /// Why the data channel ended before its time.
  struct failure {
    int code = 0;
    std::string text;
  };

  transfer(session& session, std::string verb, std::string path);

  // Any thread.

  /// Sends the 150 and opens the data channel, once; does not wait for it.
  void begin();
  bool begun() const { return begun_; }
  data_sender& stream() { return stream_; }
  data_receiver& receiver() { return *receiver_; }  ///< of one that receives
  bool receives() const { return receiver_ != nullptr; }
  const std::string& verb() const { return verb_; }
  const std::string& path() const { return path_; }
  /// Bytes that went out, or that came in.
  std::uint64_t moved_bytes() const { return receiver_ ? receiver_->received_bytes() : stream_.sent_bytes(); }

  // I/O thread.

  /// Makes it receive exactly `expected` bytes; nothing: as many as come. `window_bytes` may wait to be read.
  void receive(std::optional<std::uint64_t> expected, std::size_t window_bytes);
  /// What the client will be told; the first failure counts. Ends nothing by itself.
  void note_failure(int code, const std::string& text);
  /// Adds a sentence to the failure.
  void explain_failure(const std::string& more);
  /// Ends it at once.
  void fail(int code, const std::string& text);
  /// Ends it: sends what is there when `success`, or drops it, closes the data connection, then calls `over`.
  void finish(bool success, std::function<void()> over);
  const std::optional<failure>& failed() const { return failed_; }
  std::chrono::duration<double> elapsed() const { return std::chrono::steady_clock::now() - started_; }

 private:
  void open();
  static boost::asio::awaitable<void> connect(std::shared_ptr<transfer> self);
  static boost::asio::awaitable<void> drain(std::shared_ptr<transfer> self, std::function<void()> over);

  session& session_;
  const std::string verb_, path_;
  const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
  std::atomic<bool> begun_{false};
  std::optional<failure> failed_;
  bool over_ = false;  ///< no data connection is waited for
  data_sender stream_;
  std::unique_ptr<data_receiver> receiver_;
};

}  // namespace tarvex::server
