#include "http_fixture.h"
#include "tarvex_exchange.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace {

using testing::ElementsAre;

/// A host that keeps what it was asked and told, as lines.
class ExchangeReport : public testing::Test {
 protected:
  ExchangeReport() {
    EXPECT_EQ(tarvex_extension_registry_add(&tarvex_i_exchange_observer_registry, TARVEX_EXCHANGE_OBSERVER_NAME,
                                            nullptr, &observer_),
              0);
  }
  ~ExchangeReport() override {
    tarvex_extension_registry_remove(&tarvex_i_exchange_observer_registry, TARVEX_EXCHANGE_OBSERVER_NAME);
  }

  static std::string text(const char* value) { return value == nullptr ? "-" : value; }
  static std::string question_of(const tarvex_exchange_t& about) {
    return text(about.method) + " " + about.host + about.path + " " + text(about.request_type) + " " +
           text(about.digest) + (about.authorised ? " authorised" : "");
  }
  static std::string outcome_of(const tarvex_exchange_t& seen) {
    std::ostringstream line;
    line << seen.status << (seen.may_have_arrived ? " may have arrived" : "") << (seen.repeated ? " repeated" : "")
         << " after " << seen.retry_after_s << " " << text(seen.validator) << " " << text(seen.answer_type) << " "
         << seen.answer_length << "/" << seen.total_length << " " << seen.sent_bytes << ">" << seen.received_bytes;
    return line.str();
  }

  std::vector<std::string> questions, outcomes;
  bool open = true;

 private:
  static tarvex_result_t ask(void* self, const tarvex_exchange_t* about) {
    auto& me = *static_cast<ExchangeReport*>(self);
    me.questions.push_back(question_of(*about));
    EXPECT_EQ(outcome_of(*about), "0 after -1 - - -1/-1 0>0");
    return me.open ? tarvex_result_t{TARVEX_SUCCESS} : failure("closed");
  }
  static void note(void* self, const tarvex_exchange_t* seen) {
    auto& me = *static_cast<ExchangeReport*>(self);
    me.outcomes.push_back(outcome_of(*seen));
    EXPECT_EQ(question_of(*seen), me.questions.back());
    EXPECT_LT(seen->elapsed_us, 60'000'000U);
  }
  const tarvex_exchange_observer_t observer_ = {this, ask, note};
};

TEST_F(ExchangeReport, TellsHowAnExchangeEnded) {
  const std::string whole = answer(200, "body"), cut = whole.substr(0, whole.size() - 2);
  const struct {
    reply sent;
    const char* outcome;
  } rows[] = {
      {{answer(200, "body", "ETag: \"e\"\r\nLast-Modified: then\r\nContent-Type: text/plain\r\n")},
       "200 after -1 \"e\" text/plain 4/4 3>4"},
      {{answer(206, "bo", "Last-Modified: then\r\nContent-Range: bytes 0-1/9\r\n")}, "206 after -1 then - 2/9 3>2"},
      {{answer(416, "", "Content-Range: bytes */9\r\n")}, "416 after -1 - - 0/9 3>0"},
      {{answer(429, "", "Retry-After: 7\r\n")}, "429 after 7 - - 0/-1 3>0"},
      {{answer(503, "", "Retry-After: soon\r\n")}, "503 after -1 - - 0/-1 3>0"},
      {{cut, reply::then::close}, "200 after -1 - - 4/4 3>2"},
      {{"HTTP/1.1 200 OK\r\n", reply::then::close}, "0 may have arrived after -1 - - -1/-1 3>0"},
      {{"", reply::then::hang}, "0 may have arrived after -1 - - -1/-1 3>0"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.outcome);
    scripted_server server({row.sent});
    tarvex_dsi_rest_write_block_arg_t block = {"abc", 3};
    rest_call call = {.method = "PUT", .url = server.url(), .writer = tarvex_dsi_rest_write_block};
    call.writer_argument = &block;
    call.callbacks.progress_callback = tarvex_dsi_rest_progress_idle_timeout;
    call.callbacks.progress_callback_arg = reinterpret_cast<void*>(std::uintptr_t{300});
    call.run();
    EXPECT_THAT(std::exchange(outcomes, {}), ElementsAre(row.outcome));
  }
  const std::string refused = scripted_server({}).url();
  rest_call{.url = refused}.run();
  EXPECT_THAT(outcomes, ElementsAre("0 after -1 - - -1/-1 0>0")) << "nobody was there";
}

TEST_F(ExchangeReport, TellsOfARequestThatWasSentTwice) {
  scripted_server server({{answer(200, "")}, {"", reply::then::close}, {answer(200, "")}});
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(rest_call{.url = server.url()}.run().succeeded);
  EXPECT_THAT(outcomes, ElementsAre("200 after -1 - - 0/0 0>0", "200 repeated after -1 - - 0/0 0>0"));
}

TEST_F(ExchangeReport, TellsWhatARequestIs) {
  scripted_server server({{answer(200, "")}, {answer(200, "")}});
  rest_call{.method = "PUT",
            .url = server.url("/p?key=secret"),
            .headers = {{"Authorization", "Bearer secret"}, {"content-type", "a/b"}, {"digest", "sha=x"}}}
      .run();
  rest_call{.url = server.url()}.run();
  EXPECT_THAT(questions, ElementsAre("PUT 127.0.0.1/p a/b sha=x authorised", "GET 127.0.0.1/ - -"));
}

TEST_F(ExchangeReport, AClosedGateEndsARequestBeforeItIsSent) {
  scripted_server server({{answer(200, "")}});
  open = false;
  const rest_call call = rest_call{.url = server.url()}.run();
  EXPECT_TRUE(!call.succeeded && !call.retryable && call.completions == 1);
  EXPECT_EQ(call.message, "closed");
  EXPECT_TRUE(outcomes.empty() && server.requests().empty());
}

}  // namespace
