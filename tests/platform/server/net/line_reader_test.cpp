#include "net/line_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tarvex::server {
namespace {

/// Events as text: lines as they are, an over-long one as "<too long>".
std::vector<std::string> read(const std::vector<std::string>& packets) {
  std::vector<std::string> events;
  line_reader reader;
  for (std::string_view packet : packets) {
    for (auto event = reader.next(packet); event != line_reader::event::more; event = reader.next(packet))
      events.push_back(event == line_reader::event::line ? reader.take_line() : "<too long>");
  }
  return events;
}

struct reader_row {
  const char* name;
  std::string bytes;
  std::vector<std::string> lines;
};

const std::string LONGEST(line_reader::MAX_LINE_BYTES - 2, 'x');

const reader_row ROWS[] = {
    {"plain", "NOOP\r\nQUIT\r\n", {"NOOP", "QUIT"}},
    {"bare LF", "NOOP\nQUIT\n", {"NOOP", "QUIT"}},
    {"LF first", "\nNOOP\r\n", {"", "NOOP"}},
    {"CR within", "A\rB\r\n", {"A\rB"}},
    {"NUL stays", std::string("A\0B\r\n", 5), {std::string("A\0B", 3)}},
    {"bytes above 127", "RETR \xc3\xa4\xe4\x80\r\n", {"RETR \xc3\xa4\xe4\x80"}},
    {"doubled 255", "RETR \xff\xff\r\n", {"RETR \xff"}},
    {"interrupt and mark before ABOR",
     "\xff\xf4\xff\xf2"
     "ABOR\r\n",
     {"ABOR"}},
    {"options", "\xff\xfb\x01NO\xff\xfe\x0aOP\r\n", {"NOOP"}},
    {"255 before a letter",
     "RETR \xff"
     "a\r\n",
     {"RETR \xff"
      "a"}},
    {"255 before LF", "RETR \xff\nNOOP\n", {"RETR \xff", "NOOP"}},
    {"no end", "NOOP", {}},
    {"longest", LONGEST + "\r\n", {LONGEST}},
    {"one more", LONGEST + "xx\r\nNOOP\r\n", {"<too long>", "NOOP"}},
    {"far too long", std::string(70000, 'x') + "\nNOOP\r\n", {"<too long>", "NOOP"}},
    {"far too long with telnet at its end", std::string(70000, 'x') + "\xff\nNOOP\r\n", {"<too long>", "NOOP"}},
};

TEST(LineReader, CutsLinesWhereverPacketsEnd) {
  for (const auto& row : ROWS) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(read({row.bytes}), row.lines);
    const std::size_t step = std::max<std::size_t>(row.bytes.size() / 64, 1);
    for (std::size_t cut = 0; cut <= row.bytes.size(); cut += step)
      EXPECT_EQ(read({row.bytes.substr(0, cut), row.bytes.substr(cut)}), row.lines) << "cut at " << cut;
    std::vector<std::string> bytes;
    for (const char byte : row.bytes) bytes.emplace_back(1, byte);
    EXPECT_EQ(read(bytes), row.lines);
  }
}

}  // namespace
}  // namespace tarvex::server
