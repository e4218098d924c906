#include "ftp/reply.h"

#include "tarvex_gridftp_server.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

namespace tarvex::server {
namespace {

using lines = std::vector<std::string>;

TEST(Reply, NoLineForgesAnother) {
  struct row {
    lines in;
    const char* reply;
  };
  const row rows[] = {
      {{}, "226 \r\n"},
      {{"a", "b"}, "226-a\r\n226-b\r\n226 End.\r\n"},
      {{"226 End.", ""}, "226-226 End.\r\n226-\r\n226 End.\r\n"},
      {{"a\r\n550 b"}, "226 a??550 b\r\n"},
      {{std::string("a\0b\x7f\x1b[2J", 8)}, "226 a?b??[2J\r\n"},
      {{"iac \xff\xf4 \xc3\xa9"}, "226 iac \xff\xff\xf4 \xc3\xa9\r\n"},
  };
  for (const row& row : rows) EXPECT_EQ(reply_format(226, row.in), row.reply);
}

TEST(Reply, BlockKeepsItsLinesInside) {
  EXPECT_EQ(reply_block(211, "a\n", {"b", "211 c", "d\r\n\xff"}, "e"),
            "211-a?\r\n b\r\n 211 c\r\n d??\xff\xff\r\n211 e\r\n");
  EXPECT_EQ(reply_block(211, "a", {}, "e"), "211-a\r\n211 e\r\n");
}

tarvex_object_t* response(tarvex_object_t* cause, int code, const char* word, const char* message) {
  return tarvex_gfs_ftp_response_error_construct(nullptr, cause, code, word, message == nullptr ? nullptr : "%s",
                                                 message);
}

tarvex_object_t* generic(tarvex_object_t* cause, const char* message) {
  return tarvex_error_construct_error(nullptr, cause, TARVEX_GFS_ERROR_GENERIC, "f", "f", 1, "%s", message);
}

TEST(Reply, CarriesTheErrorChain) {
  struct row {
    const char* name;
    std::function<tarvex_object_t*()> make;
    const char* reply;
    const char* text;
  };
  const row rows[] = {
      {"class word alone", [] { return response(nullptr, 550, "PATH_NOT_FOUND", nullptr); }, "550 PATH_NOT_FOUND\r\n",
       "PATH_NOT_FOUND"},
      {"message of two lines and a cause",
       [] { return response(generic(nullptr, "why\nreally"), 553, "PATH_EXISTS", "x\ny"); },
       "553-PATH_EXISTS\r\n553-x\r\n553-y\r\n553-why\r\n553-really\r\n553 End.\r\n", "PATH_EXISTS; x; y; why; really"},
      {"wrapped", [] { return generic(response(nullptr, 451, "TOO_BUSY", nullptr), "outer"); },
       "451-TOO_BUSY\r\n451-outer\r\n451 End.\r\n", "TOO_BUSY; outer"},
      {"outermost response counts", [] { return response(response(nullptr, 451, "B", nullptr), 550, "A", nullptr); },
       "550-A\r\n550-B\r\n550 End.\r\n", "A; B"},
      {"no code", [] { return generic(nullptr, "Bad BOX request"); }, "500 Bad BOX request\r\n", "Bad BOX request"},
      {"hostile name", [] { return response(nullptr, 550, "PATH_NOT_FOUND", "a\r\n\n226 ok\xff"); },
       "550-PATH_NOT_FOUND\r\n550-a?\r\n550-226 ok\xff\xff\r\n550 End.\r\n", "PATH_NOT_FOUND; a\r; 226 ok\xff"},
      {"code out of range", [] { return response(nullptr, 226, "A", nullptr); }, "500 A\r\n", "A"},
      {"system error", [] { return tarvex_i_gfs_error_system(nullptr, ENOMEM, "System error in %s", "malloc"); },
       "500 System error in malloc: Cannot allocate memory\r\n", "System error in malloc: Cannot allocate memory"},
  };
  for (const row& row : rows) {
    const tarvex_result_t result = tarvex_error_put(row.make());
    EXPECT_EQ(reply_from_error(result, 500), row.reply) << row.name;
    EXPECT_EQ(error_text(result), row.text) << row.name;
    tarvex_result_release(result);
  }
  EXPECT_TRUE(reply_from_error(TARVEX_FAILURE, 426).starts_with("426 "));
}

TEST(FtpResponseError, CopiesLiveOnTheirOwn) {
  tarvex_object_t* original = response(generic(nullptr, "cause"), 553, "PATH_EXISTS", "x");
  tarvex_object_t* copy = tarvex_object_copy(original);
  tarvex_object_free(original);
  EXPECT_EQ(tarvex_gfs_ftp_response_error_code(copy), 553);
  EXPECT_STREQ(tarvex_gfs_ftp_response_error_class(copy), "PATH_EXISTS");
  const tarvex_result_t result = tarvex_error_put(copy);
  EXPECT_EQ(error_text(result), "PATH_EXISTS; x; cause");
  tarvex_result_release(result);
  EXPECT_EQ(tarvex_gfs_ftp_response_error_class(nullptr), nullptr);
}

}  // namespace
}  // namespace tarvex::server
