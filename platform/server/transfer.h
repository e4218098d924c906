#pragma once

#include "data_stream.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tarvex::server {

struct session;

/// One use of the data channel, from the 150 reply to the closed connection. The final reply is the caller's.
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
  data_stream& stream() { return stream_; }
  const std::string& verb() const { return verb_; }
  const std::string& path() const { return path_; }
  std::uint64_t sent_bytes() const { return stream_.sent_bytes(); }

  // I/O thread.

  /// Ends it at once; the first failure counts.
  void fail(int code, const std::string& text);
  /// Ends it: sends what is there when `success`, or drops it, closes the data connection, then calls `over`.
  void finish(bool success, std::function<void()> over);
  const std::optional<failure>& failed() const { return failed_; }
  std::chrono::duration<double> elapsed() const { return std::chrono::steady_clock::now() - started_; }

 private:
  void open();

  session& session_;
  const std::string verb_, path_;
  const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
  std::atomic<bool> begun_{false};
  std::optional<failure> failed_;
  data_stream stream_;
};

}  // namespace tarvex::server
