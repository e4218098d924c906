#include "base/checksum.h"
#include "session_fixture.h"

#include <chrono>

namespace tarvex::server::test {
namespace {

const std::string CONTENT = "0123456789abcdefghij";

std::string digest(std::string_view algorithm, std::string_view bytes) {
  auto stream = checksum_stream::create(algorithm);
  stream->update(std::as_bytes(std::span(bytes)));
  return *stream->finish();
}

/// Sends what is asked for, some of it twice, as after a connection that broke. Bytes beyond `most` are not there.
void send_content(tarvex_gfs_operation_t op, std::string& asked, tarvex_off_t most) {
  tarvex_off_t offset = 0, length = 0;
  tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
  while (tarvex_gridftp_server_get_read_range(op, &offset, &length), length != 0) {
    asked += "[" + std::to_string(offset) + "," + std::to_string(length) + "]";
    const tarvex_off_t all = length < 0 ? most - offset : std::min(length, most - offset);
    const std::string bytes = CONTENT.substr(static_cast<std::size_t>(offset), static_cast<std::size_t>(all));
    EXPECT_TRUE(write_and_wait(op, bytes.substr(0, 3), offset));
    EXPECT_TRUE(write_and_wait(op, bytes, offset));
  }
  tarvex_gridftp_server_finished_transfer(op, TARVEX_SUCCESS);
}

TEST_F(SessionTest, ChecksumsComeFromTheStorageOrFromWhatItSends) {
  std::string asked;
  auto most = static_cast<tarvex_off_t>(CONTENT.size());
  script.start = [](auto op, auto*) {
    tarvex_result_release(tarvex_gridftp_server_set_checksum_support(op, "SHA1:1;MD5:8;"));
    tarvex_gridftp_server_finished_session_start(op, TARVEX_SUCCESS, nullptr, nullptr, "/");
  };
  script.stat = [](auto op, tarvex_gfs_stat_info_t* info) {
    const bool folder = std::string_view(info->pathname) == "/dir";
    answer_item(op, folder, static_cast<tarvex_off_t>(CONTENT.size()));
  };
  script.send = [&](auto op, auto*) { send_content(op, asked, most); };
  script.command = [&](auto op, tarvex_gfs_command_info_t* info) {
    asked += std::string(info->cksm_alg) + std::to_string(info->cksm_offset) + std::to_string(info->cksm_length);
    tarvex_gridftp_server_finished_command(op, TARVEX_SUCCESS, "kept");
  };
  log_in();
  const auto part = [](std::size_t offset, std::size_t length) { return CONTENT.substr(offset, length); };
  struct {
    std::string line, asked, reply;
  } const rows[] = {
      {"CKSM md5 0 -1 /a file", "MD50-1", "213 kept"},
      {"CKSM SHA-1 0 -1 f", "SHA10-1", "213 kept"},
      {"XMD5 f 1", "MD50-1", "250 kept"},
      {"HASH f", "SHA10-1", "213 SHA-1 0-20 kept f"},
      {"OPTS HASH", "", "200 SHA-1"},
      {"OPTS HASH sha256", "", "200 SHA-256"},
      {"HASH f", "[0,-1]", "213 SHA-256 0-20 " + digest("SHA256", CONTENT) + " f"},
      {"CKSM SHA256 0 -1 f", "[0,-1]", "213 " + digest("SHA256", CONTENT)},
      {"CKSM MD5 4 -1 f", "[4,-1]", "213 " + digest("MD5", part(4, 16))},
      {"CKSM MD5 4 6 f", "[4,6]", "213 " + digest("MD5", part(4, 6))},
      {"CKSM SHA1 0 20 f", "[0,20]", "213 " + digest("SHA1", CONTENT)},
      {"CKSM CRC32 20 -1 f", "", "213 00000000"},
      {"CKSM SHA512 3 0 f", "", "213 " + digest("SHA512", "")},
      {"XCRC \"f\" 2 5", "[2,3]", "250 " + digest("CRC32", part(2, 3))},
      {"XSHA256 f 2 5", "[2,3]", "250 " + digest("SHA256", part(2, 3))},
      {"XSHA1 \"f\" 2", "[2,-1]", "250 " + digest("SHA1", part(2, 18))},
      {"XCRC f 5 2", "", "501 "},
      {"XCRC \"f\" -1 2", "", "501 "},
      {"CKSM MD5 21 -1 f", "", "501 "},
      {"CKSM MD5 10 11 f", "", "501 "},
      {"CKSM MD5 9223372036854775807 1 f", "", "501 "},
      {"CKSM MD5 0 9223372036854775808 f", "", "501 "},
      {"CKSM NOPE 0 -1 f", "", "504 Unknown algorithm NOPE; known are MD5, SHA1, SHA256, SHA512, CRC32, ADLER32."},
  };
  for (const auto& row : rows) {
    asked.clear();
    expect(row.line, row.reply);
    EXPECT_EQ(asked, row.asked) << row.line;
  }
  EXPECT_THAT(command("FEAT"),
              testing::HasSubstr(" CKSUM SHA1:1;MD5:8;\r\n HASH SHA-1;MD5;SHA-256*;SHA-512;CRC32\r\n XCRC\r\n"));
  most = 9;
  expect("CKSM MD5 4 6 f", "451 ");  // the file has become shorter
}

TEST_F(SessionTest, ChecksumsTellTheirProgressAndCanBeAborted) {
  config.update_interval_s = 1;
  script.send = [](auto op, auto*) {
    EXPECT_TRUE(write_and_wait(op, "123", 0));
    wait_for_cancel();
    EXPECT_FALSE(write_and_wait(op, "45", 3));
    tarvex_gridftp_server_finished_transfer(op, TARVEX_FAILURE);
  };
  log_in();
  const auto abort = [this] {
    expect("NOOP", "200 ");
    const auto start = std::chrono::steady_clock::now();
    expect("ABOR", "426 ");
    expect_reply("226 ");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  };
  EXPECT_EQ(command("CKSM SHA256 0 -1 /file"), "113 3\r\n");
  EXPECT_EQ(reply(), "113 3\r\n");
  abort();
  control.write("XSHA256 /file\r\n");
  abort();
  EXPECT_EQ(command("SIZE /file"), "213 5\r\n");
}

}  // namespace
}  // namespace tarvex::server::test
