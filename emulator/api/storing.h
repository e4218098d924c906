#pragma once

#include <optional>
#include <string>

#include "api/call.h"
#include "base/digest.h"

namespace tarvex::emulator {

/// Content on its way in: a file of the content store under a name of its own, removed again unless it is kept.
class content_draft {
 public:
  explicit content_draft(const content_store& in);
  content_draft(const content_draft&) = delete;
  content_draft& operator=(const content_draft&) = delete;
  ~content_draft();

  /// Appends and digests.
  void append(std::string_view bytes);

  [[nodiscard]] std::int64_t size() const { return size_; }
  [[nodiscard]] std::string sha1() const;  // 40 hex digits
  [[nodiscard]] const std::string& name() const { return name_; }
  void keep() { temporary_ = false; }

 private:
  const content_store& in_;
  std::string name_ = {};
  descriptor file_;
  bool temporary_ = true;
  std::int64_t size_ = 0;
  sha1_digest digest_;
};

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
[[nodiscard]] file_target target_of(const call& of, const json_t* attributes);

/// Checks what can be checked before the bytes are there. Throws problem. Inside a transaction.
void target_check(const call& of, const file_target& target, std::int64_t size);

/// Makes a new file, or a new version of one, and takes the draft over. Throws problem. Inside a transaction.
[[nodiscard]] item store_file(const call& of, const file_target& target, const file_bytes& bytes);
[[nodiscard]] item store_version(const call& of, const item& file, const file_target& target, const file_bytes& bytes);

}  // namespace tarvex::emulator
