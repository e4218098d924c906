#include "session_fixture.h"

namespace tarvex::server::test {
namespace {

const char* text(const char* given) {
  return given ? given : "-";
}

/// A command record in one line; fields that are not set show as "-" or 0.
std::string record(const tarvex_gfs_command_info_t& info) {
  return std::to_string(info.command) + " " + text(info.pathname) + " " + text(info.from_pathname) + " " +
         std::to_string(info.chmod_mode) + " " + text(info.chgrp_group) + " " + std::to_string(info.utime_time) + " " +
         text(info.authz_assert) + " " + text(static_cast<const char*>(info.op_info));
}

TEST_F(SessionTest, CommandsReachTheStorageWithTheirRecord) {
  std::vector<std::string> records;
  script.command = [&](auto op, tarvex_gfs_command_info_t* info) {
    records.push_back(record(*info));
    tarvex_gridftp_server_finished_command(op, TARVEX_SUCCESS,
                                           info->command == TARVEX_GFS_CMD_MKD ? "/the \"storage's\"" : nullptr);
  };
  log_in();
  command("CWD dir");
  struct {
    const char* line;
    const char* record;  ///< empty: the storage is not asked
    const char* reply;
  } const rows[] = {
      {"MKD new one", "1 /dir/new one - 0 - 0 - -", "257 \"/the \"\"storage's\"\"\" is made."},
      {"XMKD /a/../b/", "1 /b - 0 - 0 - -", "257 "},
      {"RMD sub", "2 /dir/sub - 0 - 0 - -", "250 "},
      {"XRMD sub/", "2 /dir/sub - 0 - 0 - -", "250 "},
      {"DELE a", "3 /dir/a - 0 - 0 - -", "250 "},
      {"site rdel a \"b\"", "5 /dir/a \"b\" - 0 - 0 - -", "250 "},
      {"SITE CHMOD 0755 a b", "9 /dir/a b - 493 - 0 - -", "250 "},
      {"SITE CHGRP staff a", "15 /dir/a - 0 staff 0 - -", "250 "},
      {"SITE UTIME 20240229235959 a", "16 /dir/a - 0 - 1709251199 - -", "250 "},
      {"SITE SYMLINK \"a \"\"b\"\"\" c d", "18 /dir/c d /dir/a \"b\" 0 - 0 - -", "250 "},
      {"SITE SYMLINKFROM a", "17 /dir/a - 0 - 0 - -", "250 "},
      {"SITE AUTHZ_ASSERT some thing", "4 - - 0 - 0 some thing -", "250 "},
      {"SITE DSI other", "10 - - 0 - 0 - other", "250 "},
      {"SITE CHROOT /dir", "3073 /dir - 0 - 0 - -", "250 "},
      {"RNFR /file", "", "350 "},
      {"RNTO x", "6 /dir/x /file 0 - 0 - -", "250 "},
      {"RNTO y", "", "503 "},  // an RNFR counts once
      {"RNFR /file", "", "350 "},
      {"NOOP", "", "200 "},
      {"RNTO x", "", "503 "},
      {"XRMD /a/..", "", "553 "},
      {"SITE RDEL ..", "", "553 "},
      {"MKD //", "", "553 "},
      {"RNFR ../..", "", "553 "},
      {"RNFR /file", "", "350 "},
      {"RNTO /", "", "553 "},
      {"MKD /file/x", "", "550-PATH_NOT_FOUND\r\n550-GridFTP-Path: \"/file/x\""},
      {"DELE /file/sub/x", "", "550-PATH_NOT_FOUND"},
      {"SITE RDEL /file/x", "", "550-"},
      {"RNFR /file", "", "350 "},
      {"RNTO /file/x", "", "550-"},
      {"SITE CHMOD 778 a", "", "501 "},
      {"SITE CHMOD 10000 a", "", "501 "},
      {"SITE UTIME 20230229000000 a", "", "501 "},
      {"SITE SYMLINK a", "", "501 "},
      {"SITE SYMLINK \"a b", "", "501 "},
  };
  for (const auto& row : rows) {
    records.clear();
    expect(row.line, row.reply);
    EXPECT_EQ(records, row.record[0] ? std::vector<std::string>{row.record} : std::vector<std::string>()) << row.line;
  }
}

TEST_F(SessionTest, RefusalsOfTheStorageAreTheReply) {
  log_in();
  script.command = [](auto op, auto*) {
    tarvex_gridftp_server_intermediate_command(op, TARVEX_SUCCESS, "not for this command");
    const auto refusal = tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 500, "NOT_IMPLEMETED", nullptr);
    tarvex_gridftp_server_finished_command(op, tarvex_error_put(refusal), "ignored");
  };
  for (const char* line : {"SITE CHMOD 644 /file", "MKD x", "SITE SHARING x"})
    EXPECT_EQ(command(line), "500 NOT_IMPLEMETED\r\n") << line;
}

}  // namespace
}  // namespace tarvex::server::test
