#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/json.h"
#include "http/message.h"

namespace tarvex::emulator {

/// What a fault does to one request.
struct fault_action {
  std::int64_t number = 0;
  std::optional<response> answer;                 // sent in place of the true one
  bool store = false;                             // carry the request out although another answer is sent
  std::optional<std::int64_t> cut_request_after;  // close when so many bytes of the body have been read
  std::int64_t read_delay_ms = 0;                 // pause before each read of the body
  delivery how;
  std::shared_ptr<json_t> settings;  // settings for this request alone; null: none

  /// Whether the request is carried out at all.
  [[nodiscard]] bool carries_out() const { return store || (!answer && !how.drop && !how.hang); }
};

/// Scripted faults, tried in the order in which they were added. Usable from all threads.
class fault_list {
 public:
  /// Adds one row (an object) or several (an array of them). Returns an empty text or what is wrong; then none is
  /// added.
  [[nodiscard]] std::string add(const json_t* rows);

  /// The first fault that is due for a request; counts the request for every row that it matches before that one.
  [[nodiscard]] std::optional<fault_action> match(const request& in);

  /// All rows with "matched" (requests that fitted) and "used" (requests that it did something to).
  [[nodiscard]] json_ptr list() const;
  void clear();

 private:
  struct fault {
    std::string method = "*";
    std::string path = "**";
    std::string query;
    std::int64_t nth = 1;
    std::int64_t times = 1;
    double probability = 1;
    std::int64_t from_us = 0;
    std::int64_t until_us = INT64_MAX;
    fault_action action;
    std::shared_ptr<json_t> row;
    std::int64_t matched = 0;
    std::int64_t used = 0;
  };

  [[nodiscard]] static std::string parse(const json_t* row, fault& into);
  [[nodiscard]] static bool is_due(fault& candidate, const request& in);

  mutable std::mutex mutex_;  // guards all below
  std::vector<fault> faults_;
  std::int64_t next_ = 1;
};

/// Explains the members of a row, for --help.
[[nodiscard]] std::string fault_help();

}  // namespace tarvex::emulator
