#include "net/line_reader.h"

#include <utility>

namespace tarvex::server {

namespace {

constexpr unsigned char TELNET_IAC = 255;
constexpr unsigned char TELNET_WILL = 251;           // WILL, WONT, DO, DONT: 251 to 254
constexpr unsigned char TELNET_FIRST_COMMAND = 240;  // below this no byte follows an IAC

}  // namespace

line_reader::event line_reader::next(std::string_view& bytes) {
  while (!bytes.empty()) {
    const auto byte = static_cast<unsigned char>(bytes.front());
    bytes.remove_prefix(1);
    const event happened = add(byte);
    if (happened != event::more) return happened;
  }
  return event::more;
}

void line_reader::clear() {
  text_.clear();
  telnet_ = telnet::none;
  discarding_ = false;
}

std::string line_reader::take_line() {
  if (!text_.empty() && text_.back() == '\r') text_.pop_back();
  return std::exchange(text_, {});
}

line_reader::event line_reader::add(unsigned char byte) {
  if (telnet_ != telnet::none) return add_telnet(byte);
  if (byte == TELNET_IAC) {
    telnet_ = telnet::command;
    return event::more;
  }
  return add_text(byte);
}

line_reader::event line_reader::add_telnet(unsigned char byte) {
  if (std::exchange(telnet_, telnet::none) == telnet::option) return event::more;
  if (byte == TELNET_IAC) return add_text(byte);
  if (byte >= TELNET_WILL) {
    telnet_ = telnet::option;
    return event::more;
  }
  if (byte >= TELNET_FIRST_COMMAND) return event::more;
  // A lone 255. Should it overrun the line, the LF that may follow still ends the discarding.
  const event first = add_text(TELNET_IAC);
  const event second = add_text(byte);
  return first == event::more ? second : first;
}

line_reader::event line_reader::add_text(unsigned char byte) {
  if (byte == '\n') return std::exchange(discarding_, false) ? event::more : event::line;
  if (discarding_) return event::more;
  if (text_.size() + 1 >= limit_) {
    discarding_ = true;
    text_.clear();
    return event::too_long;
  }
  text_.push_back(static_cast<char>(byte));
  return event::more;
}

}  // namespace tarvex::server
