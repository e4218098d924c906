#include "session_fixture.h"

#include <cstdlib>

namespace tarvex::server::test {
namespace {

/// What was set is forgotten, the storage's session is over; what counts against a guesser is not.
TEST_F(SessionTest, BeginsAnewWithAnotherUser) {
  log_in();
  expect({{"CWD dir", "250 "}, {"OPTS MLST size;", "200 "}, {"EPSV ALL", "200 "}, {"RNFR /file", "350 "}});
  const loopback_socket left_behind = passive();
  expect({{"REST 3", "350 "}, {"REIN", "220 "}});
  EXPECT_EQ(left_behind.read(), "");
  EXPECT_EQ(script.destroyed, 1);
  for (int i = 0; i < 2; ++i) {
    expect(
        {{"PWD", "530 "}, {"PASS secret", "503 "}, {"USER alice", "331 "}, {"REIN", "220 "}, {"PASS secret", "503 "}});
    expect(
        {{"USER alice", "331 "}, {"PASS secret", "230 "}, {"PWD", "257 \"/\" "}, {"RNTO x", "503 "}, {"PASV", "227 "}});
    EXPECT_EQ(fetch("RETR file"), "hello");
    expect_reply("226 ");
    EXPECT_THAT(command("FEAT"), testing::HasSubstr("MLST type*;"));
    expect("REIN", "220 ");
    EXPECT_EQ(script.destroyed, i + 2);
  }
  for (int i = 2; i < 9; ++i) expect({{"BABBLE", "502 "}, {"REIN", "220 "}});
  expect("BABBLE", "502 ");
  expect_reply("421 ");
}

TEST_F(SessionTest, SendsAwayWhoCannotBeServed) {
  std::string logins;
  for (const char* login : {"USER alice\r\nPASS wrong\r\n", "USER nobody\r\nPASS secret\r\n"}) logins += login;
  const struct {
    std::string lines;
    int sent;
    std::string answer;
    int answered;
    std::string last;
  } rows[] = {
      {"GET / HTTP/1.1\r\nHost: x\r\n", 1, "500 This is an FTP server.\r\n", 1, ""},
      {std::string(9000, 'x') + "\r\nBABBLE\r\n", 5, "50", 10, "421 "},
      {logins, 3, "530 Login incorrect.\r\n", 5, "421 "},
  };
  const auto next_reply = [this] {
    std::string answer = reply();
    while (answer.starts_with("331 ")) answer = reply();
    return answer;
  };
  for (const auto& row : rows) {
    connect();
    std::string pipelined;
    for (int i = 0; i < row.sent; ++i) pipelined += row.lines;
    control.write(pipelined);
    for (int i = 0; i < row.answered; ++i) EXPECT_THAT(next_reply(), StartsWith(row.answer));
    EXPECT_THAT(next_reply(), StartsWith(row.last));
    EXPECT_TRUE(ended());
    close_session();
  }
}

TEST_F(SessionTest, StorageMayRefuseALoginAndTakeTheNext) {
  bool refuse = true;
  script.start = [&](auto op, tarvex_gfs_session_info_t* info) {
    EXPECT_STREQ(info->username, "alice");
    EXPECT_STREQ(info->remote_host, "127.0.0.1");
    auto* error = tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 550, "DENIED", "no token");
    if (std::exchange(refuse, false))
      return tarvex_gridftp_server_finished_session_start(op, tarvex_error_put(error), nullptr, nullptr, nullptr);
    tarvex_object_free(error);
    tarvex_gridftp_server_finished_session_start(op, TARVEX_SUCCESS, nullptr, "alice@box", "/dir");
  };
  connect();
  expect({{"USER alice", "331 "},
          {"PASS secret", "530-DENIED\r\n530-no token\r\n530 End.\r\n"},
          {"USER alice", "331 "},
          {"PASS secret", "230 "},
          {"PWD", "257 \"/dir\" is the current folder.\r\n"}});
}

/// 530 is for a credential that was refused; clients do not try that again.
TEST_F(SessionTest, FailedLoginsSayWhetherToTryAgain) {
  const struct {
    int status;  ///< of Box's answer; -1: it was not asked
    int code;    ///< of the storage's error; 0: it has none
    const char* reply;
  } rows[] = {
      {401, 550, "530-"}, {429, 550, "421-"}, {503, 500, "421-"}, {0, 0, "421 "}, {-1, 0, "530 "}, {-1, 421, "421-"},
  };
  for (const auto& row : rows) {
    script.start = [&row](auto op, auto*) {
      if (row.status >= 0) play({"GET", row.status});
      const tarvex_result_t result =
          row.code == 0
              ? TARVEX_FAILURE
              : tarvex_error_put(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, row.code, "WORD", "why"));
      tarvex_gridftp_server_finished_session_start(op, result, nullptr, nullptr, nullptr);
    };
    connect();
    expect({{"USER alice", "331 "}, {"PASS secret", row.reply}});
    EXPECT_TRUE(row.reply[0] == '5' || ended());
    close_session();
  }
}

TEST_F(SessionTest, HandsOverConfigurationData) {
  config.storage_policy = "{\"rate\": 1}";
  std::vector<std::string> values;
  script.start = [&](auto op, auto*) {
    for (const char* key : {"config", "creds", "renew-creds", "other"}) {
      char* value = nullptr;
      EXPECT_EQ(tarvex_gridftp_server_get_config_data(op, key, &value), TARVEX_SUCCESS);
      values.emplace_back(value ? value : "(none)");
      std::free(value);
    }
    tarvex_gridftp_server_finished_session_start(op, TARVEX_SUCCESS, nullptr, nullptr, nullptr);
  };
  write_credential("{}");
  log_in();
  EXPECT_EQ(values, (std::vector<std::string>{"{\"rate\": 1}", "{}", "{}", "(none)"}));
}

}  // namespace
}  // namespace tarvex::server::test
