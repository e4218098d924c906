#include "storage/exchange_log.h"

#include <gtest/gtest.h>

namespace tarvex::server {
namespace {

tarvex_exchange_t exchange(const char* method, int status, const char* type = nullptr, const char* digest = nullptr) {
  tarvex_exchange_t made{};
  made.method = method;
  made.status = status;
  made.request_type = type;
  made.digest = digest;
  made.authorised = true;
  return made;
}

TEST(ExchangeLog, TellsRequestsByWhatTheyAre) {
  using fate = request_fate exchange_summary::*;
  const struct {
    const char *method, *type, *digest;
    fate kind;  ///< null: of none
    bool touches;
  } rows[] = {
      {"GET", nullptr, nullptr, &exchange_summary::reads, false},
      {"DELETE", nullptr, nullptr, &exchange_summary::deletes, true},
      {"PUT", "application/json", nullptr, &exchange_summary::puts, true},
      {"PUT", "application/octet-stream", "sha=x", nullptr, false},  // a part, which is no file yet
      {"POST", "application/json", nullptr, &exchange_summary::posts, true},
      {"POST", nullptr, nullptr, &exchange_summary::posts, true},
      {"POST", "multipart/form-data; boundary=x", nullptr, &exchange_summary::upload, true},
      {"POST", "application/json", "sha=x", &exchange_summary::commit, true},
      {nullptr, nullptr, nullptr, nullptr, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << (row.method ? row.method : "-") << (row.type ? row.type : "-"));
    exchange_log log;
    EXPECT_FALSE(log.hears());
    log.begin({});
    log.note(exchange(row.method, 299, row.type, row.digest));
    const exchange_summary heard = log.summary();
    unsigned sent = 0;
    for (const fate kind : {&exchange_summary::reads, &exchange_summary::deletes, &exchange_summary::puts,
                            &exchange_summary::posts, &exchange_summary::upload, &exchange_summary::commit})
      sent += (heard.*kind).sent;
    EXPECT_EQ(sent, row.kind ? 1U : 0U);
    EXPECT_EQ(row.kind ? (heard.*row.kind).status : 299, 299);
    EXPECT_EQ(heard.touched(), row.touches);
    EXPECT_EQ(heard.commit_digest, row.kind == &exchange_summary::commit ? "sha=x" : "");
    EXPECT_EQ(heard.last.sent, 1U);
    EXPECT_TRUE(log.hears());
    log.begin({});
    EXPECT_EQ(log.summary().last.sent, 0U);
  }
  exchange_log log;
  tarvex_exchange_t download = exchange("GET", 200);
  download.authorised = false;
  log.note(download);
  EXPECT_EQ(log.summary().reads.sent, 0U);
}

TEST(ExchangeLog, KnowsWhatLeavesADoubtAndWhatMayPass) {
  const struct {
    int status;
    bool arrived, doubtful, may_pass;
  } rows[] = {
      {0, true, true, true},      {0, false, false, true},    {200, false, false, false}, {202, false, false, false},
      {400, false, false, false}, {403, false, false, false}, {404, false, false, false}, {408, false, true, true},
      {409, false, false, true},  {423, false, false, true},  {429, false, false, true},  {500, false, true, true},
      {503, false, true, true},
  };
  for (const auto& row : rows) {
    request_fate fate;
    tarvex_exchange_t over = exchange("DELETE", row.status);
    over.may_have_arrived = row.arrived;
    fate.note(over);
    EXPECT_EQ(fate.doubtful, row.doubtful) << row.status << row.arrived;
    EXPECT_EQ(status_may_pass(row.status), row.may_pass) << row.status;
    fate.note(exchange("DELETE", 404));
    EXPECT_EQ(fate.doubtful, row.doubtful) << "an earlier one may have been carried out";
    EXPECT_EQ(fate.status, 404);
  }
}

TEST(ExchangeLog, CallsOnceBeforeWhatMayChangeSomething) {
  exchange_log log;
  int calls = 0;
  log.begin([&] { ++calls; });
  for (const char* method : {"GET", "HEAD", "OPTIONS"}) log.going_out(exchange(method, 0));
  EXPECT_EQ(calls, 0);
  for (const char* method : {"DELETE", "POST", "PUT"}) log.going_out(exchange(method, 0));
  EXPECT_EQ(calls, 1);
  log.begin([&] { ++calls; });
  log.end();
  log.going_out(exchange("DELETE", 0));
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace tarvex::server
