#include "session_fixture.h"

#include <chrono>
#include <thread>

namespace tarvex::server::test {
namespace {

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
