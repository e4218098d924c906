#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tarvex::server {

/// Cuts the bytes of a control channel into lines (RFC 959 section 5.3; telnet: RFC 854). A line ends with LF; a CR
/// before it belongs to the end. Telnet sequences are taken out, wherever packets split them: IAC IAC is a byte 255,
/// IAC WILL/WONT/DO/DONT with its option and the two-byte commands vanish. A 255 before any other byte stands for
/// itself, since clients that know nothing of telnet send names in Latin-1. All other bytes stay as they are, NUL and
/// CR included.
class line_reader {
 public:
  static constexpr std::size_t MAX_LINE_BYTES = 8192;

  enum class event { more, line, too_long };

  /// \param limit  bytes of a line with its end. What is longer is reported as too long, once, and dropped up to its
  /// LF.
  explicit line_reader(std::size_t limit = MAX_LINE_BYTES) : limit_(limit) {}

  /// Takes bytes off the front of `bytes` up to the next event. `more`: all were taken and no line is complete.
  event next(std::string_view& bytes);

  /// Forgets what has come, up to the middle of a line.
  void clear();

  /// The line that `event::line` announced, without its end. Moves it out.
  std::string take_line();

 private:
  enum class telnet { none, command, option };

  event add(unsigned char byte);
  event add_telnet(unsigned char byte);
  event add_text(unsigned char byte);

  const std::size_t limit_;
  std::string text_;
  telnet telnet_ = telnet::none;
  bool discarding_ = false;
};

}  // namespace tarvex::server
