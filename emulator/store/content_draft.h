#pragma once

#include "base/digest.h"
#include "store/content_store.h"
#include "tarvex_common.hpp"

#include <cstdint>
#include <string>
#include <string_view>

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

}  // namespace tarvex::emulator
