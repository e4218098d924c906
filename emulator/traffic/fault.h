#pragma once

#include "base/json.h"
#include "http/message.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace tarvex::emulator {

/// A JSON document that several requests read at once; nobody changes it.
using shared_json = std::shared_ptr<const json_t>;

/// What a fault does to one request.
struct fault_action {
  std::int64_t number = 0;
  shared_json row;                                // as it was given
  shared_json settings;                           // settings for this request alone; null: none
  bool store = false;                             // carry the request out although another answer is sent
  std::optional<std::int64_t> cut_request_after;  // close when so many bytes of the body have been read
  std::int64_t read_delay_ms = 0;                 // pause before each read of the body
  std::optional<double> cut_answer_at;            // close after this share (0 to 1) of the answer's body
  delivery how;

  /// The answer that is sent in place of the true one, made anew at each call; nothing when the row has none.
  [[nodiscard]] std::optional<response> answer() const;

  /// Whether the request is carried out at all.
  [[nodiscard]] bool carries_out() const;
};

/// Which requests a fault is for, what it does to them, and how often it has done so.
struct fault {
  std::string method = "*";
  std::string path = "**";
  std::string query = {};
  std::int64_t nth = 1;
  std::int64_t times = 1;  // 0: all
  double probability = 1;
  std::string kind = {};  // what its draws go by: the row's text
  std::int64_t from_us = 0;
  std::int64_t until_us = INT64_MAX;
  fault_action action = {};
  std::int64_t matched = 0;
  std::int64_t used = 0;

  /// Whether it is due for this request; counts the request in `matched` when it fits, and in `used` when it is due.
  /// `seed` fixes the draws of its probability.
  [[nodiscard]] bool take(const request& in, std::int64_t seed);
};

/// Reads one row. Returns an empty text, or what is wrong with it.
[[nodiscard]] std::string fault_parse(const json_t* row, fault& into);

/// Explains the members of a row, for --help.
[[nodiscard]] std::string fault_help();

}  // namespace tarvex::emulator
