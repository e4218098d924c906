#include "session_fixture.h"

#include <chrono>
#include <thread>

namespace tarvex::server::test {
namespace {

TEST_F(SessionTest, ListsNamesInEveryForm) {
  log_in();
  const std::pair<std::string, std::string> rows[] = {
      {"NLST", "f0\r\nf1\r\nf2\r\n"},
      {"NLST -la /dir", "f0\r\nf1\r\nf2\r\n"},
      {"NLST file", "file\r\n"},
      {"LIST -a", "-rw-------   0 ftp      ftp                 0 Jan  1  1970 f0\r\n"},
      {"MLSD dir", "type=file;size=0;modify=19700101000000;perm=rdfw;UNIX.mode=0600;unique=0g0; f0\r\n"},
  };
  for (const auto& [line, expected] : rows) {
    EXPECT_THAT(fetch(line), StartsWith(expected)) << line;
    expect_reply("226 ");
  }
}

TEST_F(SessionTest, AnswersAttributes) {
  log_in();
  expect({
      {"SIZE file", "213 5\r\n"},
      {"SIZE dir", "550 /dir: not a file.\r\n"},
      {"MDTM file", "213 20231114221320\r\n"},
      {"MLST file",
       "250-Listing /file\r\n type=file;size=5;modify=20231114221320;perm=rdfw;UNIX.mode=0600;unique=0g0; /file\r\n"
       "250 End.\r\n"},
      {"OPTS MLST size;Type;nonsense;", "200 MLST OPTS type;size;\r\n"},
      {"MLST file", "250-Listing /file\r\n type=file;size=5; /file\r\n250 End.\r\n"},
      {"STAT file",
       "213-Status of /file:\r\n -rw-------   0 ftp      ftp                 5 Nov 14  2023 file\r\n"
       "213 End.\r\n"},
      {"CWD missing", "550-PATH_NOT_FOUND\r\n"},
      {"CWD dir", "250 "},
      {"SIZE ../file", "213 5\r\n"},
      {"CWD ../../..", "250 "},
      {"CWD file", "550 /file: not a folder.\r\n"},
      {"CDUP", "250 Folder changed to /.\r\n"},
      {"SIZE missing", "550-PATH_NOT_FOUND\r\n550-GridFTP-Path: \"/missing\"\r\n550 End.\r\n"},
      {"SIZE " + std::string(5000, 'x'), "501 "},
  });
}

TEST_F(SessionTest, FailedListingsAreNoSuccess) {
  log_in();
  const loopback_socket data = passive();
  expect({{"LIST missing", "550-"}, {"MLSD file", "501 "}});
  bool begun = false;
  script.stat = [&](auto op, tarvex_gfs_stat_info_t* info) {
    if (info->file_only) return answer_item(op, true, 0);
    std::string name = "first";
    tarvex_gridftp_server_control_stat_t entry{};
    entry.name = name.data();
    if (begun) tarvex_gridftp_server_finished_stat_partial(op, TARVEX_SUCCESS, &entry, 1);
    tarvex_gridftp_server_finished_stat(op, begun ? not_found("/") : tarvex_result_t{TARVEX_FAILURE}, nullptr, 0);
  };
  expect("NLST", "550 Operation failed.\r\n");
  begun = true;
  EXPECT_THAT(fetch("NLST"), testing::AnyOf("", "first\r\n"));
  expect_reply("550-");
  expect("STAT .", "213-");
}

/// The storage is made to wait for a client that does not read, and the whole listing comes all the same.
TEST_F(SessionTest, SlowReaderHoldsTheStorage) {
  constexpr int FILES = 250000;
  constexpr int BATCH = 1000;
  std::atomic<int> batches{0};
  script.stat = [&](auto op, tarvex_gfs_stat_info_t* info) {
    if (info->file_only) return answer_item(op, true, 0);
    tarvex_gridftp_server_control_stat_t entry{};
    std::string name(60, 'n');
    entry.name = name.data();
    std::vector<tarvex_gridftp_server_control_stat_t> entries(BATCH, entry);
    for (; batches < FILES / BATCH; ++batches)
      tarvex_gridftp_server_finished_stat_partial(op, TARVEX_SUCCESS, entries.data(), BATCH);
    tarvex_gridftp_server_finished_stat(op, TARVEX_SUCCESS, nullptr, 0);
  };
  for (const char* line : {"NLST", "STAT /"}) {
    SCOPED_TRACE(line);
    batches = 0;
    log_in();
    const loopback_socket data = passive();
    control.write(std::string(line) + "\r\n");
    const auto grows = [&] {
      const int before = batches;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      return batches == 0 || batches > before;
    };
    while (grows()) continue;
    EXPECT_LT(batches, FILES / BATCH);
    const std::string listing = std::string(line) == "NLST" ? data.read_all() : std::string();
    EXPECT_GE(listing.size() + reply().size(), FILES * 62U);
    close_session();
  }
}

}  // namespace
}  // namespace tarvex::server::test
