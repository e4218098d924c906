#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tarvex::server {

/// Counts a transfer's connections in extended block mode: those that were opened, those that have said that they end
/// (EOD), and how many of these the sender has announced (EOF). Each call returns why the sender may not do that, as a
/// sentence; empty: it may.
class block_tally {
 public:
  /// \param most  connections of one transfer
  explicit block_tally(unsigned most) : most_(most) {}

  [[nodiscard]] std::string opened();
  [[nodiscard]] std::string end_of_data();
  [[nodiscard]] std::string end_of_file(std::uint64_t announced);

  /// All that was announced has come.
  bool complete() const { return announced_ == ended_; }
  /// Every connection that can still bring something is open.
  bool all_open() const { return (announced_ ? *announced_ : most_) <= opened_; }
  unsigned ended() const { return ended_; }
  const std::optional<unsigned>& announced() const { return announced_; }

 private:
  std::string too_many_opened() const;

  const unsigned most_;
  unsigned opened_ = 0;
  unsigned ended_ = 0;
  std::optional<unsigned> announced_;
};

}  // namespace tarvex::server
