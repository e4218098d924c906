#include "storage/outcome.h"

#include "ftp/reply.h"
#include "tarvex_gridftp_server.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

namespace tarvex::server {
namespace {

tarvex_object_t* response(tarvex_object_t* cause, int code, const char* word, const char* message) {
  return tarvex_gfs_ftp_response_error_construct(nullptr, cause, code, word, message == nullptr ? nullptr : "%s",
                                                 message);
}

tarvex_object_t* generic(tarvex_object_t* cause, const char* message) {
  return tarvex_error_construct_error(nullptr, cause, TARVEX_GFS_ERROR_GENERIC, "f", "f", 1, "%s", message);
}

TEST(Outcome, CarriesTheErrorChain) {
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
      {"no code", [] { return generic(nullptr, "Bad BOX request"); }, "451 Bad BOX request\r\n", "Bad BOX request"},
      {"internal", [] { return response(nullptr, 500, "INTERNAL_ERROR", "x"); },
       "451-INTERNAL_ERROR\r\n451-x\r\n451 End.\r\n", "INTERNAL_ERROR; x"},
      {"hostile name", [] { return response(nullptr, 550, "PATH_NOT_FOUND", "a\r\n\n226 ok\xff"); },
       "550-PATH_NOT_FOUND\r\n550-a?\r\n550-226 ok\xff\xff\r\n550 End.\r\n", "PATH_NOT_FOUND; a\r; 226 ok\xff"},
      {"code out of range", [] { return response(nullptr, 226, "A", nullptr); }, "451 A\r\n", "A"},
      {"system error", [] { return tarvex_i_gfs_error_system(nullptr, ENOMEM, "System error in %s", "malloc"); },
       "451 System error in malloc: Cannot allocate memory\r\n", "System error in malloc: Cannot allocate memory"},
  };
  for (const row& row : rows) {
    const tarvex_result_t result = tarvex_error_put(row.make());
    const outcome failure = outcome_of(result, 451);
    EXPECT_EQ(reply_format(failure.code, failure.lines), row.reply) << row.name;
    EXPECT_EQ(failure.text(), row.text) << row.name;
    tarvex_result_release(result);
  }
  EXPECT_EQ(outcome_of(TARVEX_FAILURE, 426).code, 426);
  EXPECT_TRUE(outcome_of(TARVEX_SUCCESS, 426).ok());
}

TEST(FtpResponseError, CopiesLiveOnTheirOwn) {
  tarvex_object_t* original = response(generic(nullptr, "cause"), 553, "PATH_EXISTS", "x");
  tarvex_object_t* copy = tarvex_object_copy(original);
  tarvex_object_free(original);
  EXPECT_EQ(tarvex_gfs_ftp_response_error_code(copy), 553);
  EXPECT_STREQ(tarvex_gfs_ftp_response_error_class(copy), "PATH_EXISTS");
  const tarvex_result_t result = tarvex_error_put(copy);
  EXPECT_EQ(outcome_of(result, 451).text(), "PATH_EXISTS; x; cause");
  tarvex_result_release(result);
  EXPECT_EQ(tarvex_gfs_ftp_response_error_class(nullptr), nullptr);
}

}  // namespace
}  // namespace tarvex::server
