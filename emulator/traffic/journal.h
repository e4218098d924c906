#pragma once

#include "base/json.h"
#include "http/message.h"
#include "tarvex_common.hpp"

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

namespace tarvex::emulator {

/// One request as it came and how it ended. Tokens are kept as digests only.
struct journal_entry {
  std::int64_t number = 0;
  std::int64_t time_us = 0;  // when the head had been read, since 1970
  std::string method;
  std::string path;
  std::string raw_query;
  pair_list query;
  pair_list headers;
  std::uint64_t body_bytes = 0;
  std::string body;        // JSON that the handler read, its first 64 KiB; of a multipart upload the attributes
  std::string grant;       // of a token request, its grant_type, or "unknown"; empty: of any other request
  unsigned status = 0;     // 0: no answer was sent, or not yet
  std::int64_t fault = 0;  // number of the fault that took part; 0: none
};

using journal_entry_ptr = std::shared_ptr<journal_entry>;

/// All requests in order. Entries stand in memory (the newest 200,000) and, line by line as JSON, in a file.
/// Usable from all threads.
class journal {
 public:
  /// `file`: appended to; empty: none. `print`: one short line for each request on standard error.
  journal(const std::string& file, bool print);

  /// Enters a request; only the caller writes to the entry until `finish`.
  [[nodiscard]] journal_entry_ptr begin(const request& in);
  void finish(const journal_entry_ptr& entry);

  /// The finished requests with a number above `since`, as an array in order of their numbers.
  [[nodiscard]] json_ptr since(std::int64_t number) const;
  [[nodiscard]] std::int64_t last_number() const;
  void clear();

 private:
  mutable std::mutex mutex_;  // guards all below
  std::int64_t next_ = 1;
  std::deque<journal_entry_ptr> finished_;
  descriptor file_;
  bool print_;
};

}  // namespace tarvex::emulator
