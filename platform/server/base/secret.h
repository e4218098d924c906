#pragma once

#include <string>

namespace tarvex::server {

/// Overwrites a text with zeros, its spare room included, and empties it. For passwords and tokens that were used:
/// freed memory keeps what stood there, and may end in a swap file or a core dump.
void wipe(std::string& text) noexcept;

/// A text that is wiped when it goes, also by an exception. Taking and moving wipe where it came from: a short text
/// would stay there.
class secret {
 public:
  secret() = default;
  explicit secret(std::string&& text) noexcept { take(text); }
  secret(secret&& other) noexcept { take(other.text_); }
  secret& operator=(secret&& other) noexcept {
    if (this != &other) take(other.text_);
    return *this;
  }
  ~secret() { wipe(text_); }

  [[nodiscard]] const std::string& text() const noexcept { return text_; }

 private:
  void take(std::string& from) noexcept {
    text_.swap(from);
    wipe(from);  // what stood here before, and a copy of what was short
  }

  std::string text_;
};

}  // namespace tarvex::server
