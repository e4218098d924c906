#pragma once

#include "api/call.h"

#include <optional>
#include <string>

namespace tarvex::emulator {

/// What is known of a file before its bytes: where it goes and its own times.
struct file_target {
  std::string name = {};
  std::int64_t folder = 0;
  std::optional<std::int64_t> content_created_at = {};
  std::optional<std::int64_t> content_modified_at = {};
};

/// The bytes to be stored: a draft's name, its size and its digest (40 hex digits).
struct file_bytes {
  std::string draft = {};
  std::int64_t size = 0;
  std::string sha1 = {};
};

/// The target in an `attributes` document. Throws problem 400 and 404. Inside a transaction.
[[nodiscard]] file_target store_target(const call& of, const json_t* attributes);

/// Checks what can be checked before the bytes are there. Throws problem. Inside a transaction.
void store_check(const call& of, const file_target& target, std::int64_t size);

/// Makes a new file, or a new version of one, and takes the draft over. Throws problem. Inside a transaction.
[[nodiscard]] item store_file(const call& of, const file_target& target, const file_bytes& bytes);
[[nodiscard]] item store_version(const call& of, const item& file, const file_target& target, const file_bytes& bytes);

}  // namespace tarvex::emulator
