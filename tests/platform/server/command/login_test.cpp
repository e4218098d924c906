#include "session_fixture.h"

#include <cstdlib>

namespace tarvex::server::test {
namespace {

TEST_F(SessionTest, AnswersBeforeAndAfterLogin) {
  connect();
  expect({
      {"SYST", "215 UNIX Type: L8\r\n"},
      {"clnt lftp", "200 "},
      {"OPTS UTF8 ON", "200 "},
      {"HOST example.org", "220 "},
      {"HELP retr", "214 Syntax: RETR path\r\n"},
      {"PASS secret", "503 "},
      {"RETR file", "530 "},
      {"PASV", "530 "},
      {"STAT", "530 "},
      {"ACCT x", "502 "},
      {"AUTH TLS", "502 "},
      {"PROT P", "503 "},
      {std::string("USER a\0b", 8), "501 "},
      {"USER", "501 "},
      {"NOOP", "200 "},
      {"USER alice", "331 "},
      {"HOST example.org", "503 "},
      {"PASS secret", "230 "},
      {"PASS secret", "503 "},
      {"USER bob", "503 "},
      {"PWD x", "501 "},
      {"CWD", "501 "},
      {"MODE X", "504 "},
      {"TYPE I", "200 "},
      {"type l 8", "200 "},
      {"TYPE X", "504 "},
      {"STRU R", "504 "},
      {"OPTS UTF8 OFF", "504 "},
      {"MFMT 20200101000000 file", "502 "},
      {"", "502 "},
  });
  EXPECT_EQ(command("FEAT"),
            "211-Extensions supported:\r\n CLNT\r\n EPRT\r\n EPSV\r\n HOST\r\n MDTM\r\n"
            " MLST type*;size*;modify*;perm*;UNIX.mode*;unique*;\r\n REST STREAM\r\n SIZE\r\n TVFS\r\n UTF8\r\n"
            " HASH SHA-1*;MD5;SHA-256;SHA-512;CRC32\r\n XCRC\r\n XMD5\r\n XSHA1\r\n XSHA256\r\n"
            " PARALLEL\r\n ERET\r\n ESTO\r\n SPAS\r\n SPOR\r\n DCAU\r\n"
            "211 End.\r\n");
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
