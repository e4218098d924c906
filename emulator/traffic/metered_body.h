#pragma once

#include "http/message.h"
#include "traffic/fault.h"

#include <cstdint>
#include <span>

namespace tarvex::emulator {

/// The body of a request as its handler reads it: counted, and slowed or cut where a fault says so.
class metered_body final : public body_source {
 public:
  /// `fault`: null for none. Both must outlive the body.
  metered_body(body_source& from, const fault_action* fault) : from_(from), fault_(fault) {}

  /// Throws connection_lost at the cut.
  std::size_t read(std::span<char> out) override;

  [[nodiscard]] std::uint64_t bytes() const { return bytes_; }
  [[nodiscard]] bool ended() const { return ended_; }

 private:
  [[nodiscard]] std::span<char> hold_back(std::span<char> out) const;

  body_source& from_;
  const fault_action* fault_;
  std::uint64_t bytes_ = 0;
  bool ended_ = false;
};

}  // namespace tarvex::emulator
