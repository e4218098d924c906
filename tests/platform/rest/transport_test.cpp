#include "http_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace {

using testing::HasSubstr;
using testing::Not;
using then = reply::then;

TEST(Transport, TellsWhatAnotherAttemptMayCure) {
  const std::string whole = answer(200, "0123456789", "A: b\r\n");
  const std::string short_of_one = whole.substr(0, whole.size() - 1);
  const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  std::string endless = "HTTP/1.1 200 OK\r\n";
  while (endless.size() < 1000000) endless += "A: " + std::string(1000, 'b') + "\r\n";
  struct {
    reply sent;
    bool retryable;
    const char* message;
  } const rows[] = {
      {{"", then::close}, true, "without an answer"},
      {{"", then::reset}, true, "connection broke"},
      {{short_of_one, then::close}, true, "cut short"},
      {{short_of_one, then::reset}, true, "connection broke"},
      {{chunked + "5\r\nabc", then::close}, true, ""},
      {{chunked + "3\r\nabc\r\n", then::close}, true, ""},
      {{"", then::hang}, true, "move a byte for 800 ms"},
      {{whole.substr(0, 30), then::hang}, true, "800 ms"},
      {{short_of_one, then::hang}, true, "800 ms"},
      {{"220 FTP server ready\r\n", then::close}, false, "not HTTP"},
      {{endless, then::hang}, false, "too long"},
  };
  for (const auto& row : rows) {
    scripted_server server({row.sent});
    rest_call call = {.url = server.url("/?token=secret")};
    call.callbacks.progress_callback = tarvex_dsi_rest_progress_idle_timeout;
    call.callbacks.progress_callback_arg = reinterpret_cast<void*>(std::uintptr_t{800});
    call.run();
    EXPECT_TRUE(!call.succeeded && call.retryable == row.retryable && call.completions == 1) << call.message;
    EXPECT_THAT(call.message, testing::AllOf(HasSubstr(row.message), Not(HasSubstr("secret"))));
  }
}

TEST(Transport, ReportsARefusedConnection) {
  const std::string url = scripted_server({}).url("/?token=secret");
  const rest_call call = rest_call{.url = url}.run();
  EXPECT_TRUE(!call.succeeded && call.retryable && call.response.response_code == 0);
  EXPECT_THAT(call.message,
              testing::MatchesRegex("The server did not answer: Connection refused \\(127.0.0.1:[0-9]+\\)"));
}

TEST(Transport, GoesOnAfterANameThatDidNotResolve) {
  const rest_call lost = rest_call{.url = "http://files.invalid/"}.run();
  EXPECT_TRUE(!lost.succeeded && lost.retryable) << lost.message;
  scripted_server server({{answer(200, "body")}});
  const rest_call call = rest_call{.url = server.url()}.run();
  EXPECT_EQ(call.body, "body") << call.message;
}

TEST(Transport, ReadsAnAnswerInAnyPiecesAndNoPrefixOfIt) {
  const std::string whole = answer(200, "body", "A: b\r\n");
  std::vector<reply> replies;
  for (std::size_t size = 0; size < whole.size(); ++size) replies.push_back({whole.substr(0, size), then::close});
  for (std::size_t piece = 1; piece < whole.size(); ++piece) replies.push_back({.bytes = whole, .piece_bytes = piece});
  scripted_server server(replies);
  for (std::size_t number = 0; number < replies.size(); ++number) {
    const rest_call call = rest_call{.url = server.url()}.run();
    EXPECT_EQ(call.succeeded, number >= whole.size()) << number;
    EXPECT_EQ(call.retryable, number < whole.size()) << number << ": " << call.message;
    EXPECT_TRUE(!call.succeeded || call.body == "body");
  }
}

TEST(Transport, KeepsConnectionsAndReplacesClosedOnes) {
  // Request 4 meets a connection that closes without an answer, as when its keep-alive time ends: it is sent again.
  const std::string ok = answer(200, "");
  scripted_server server({{ok}, {answer(404, "")}, {ok, then::close}, {ok}, {"", then::close}, {ok}});
  tarvex_dsi_rest_write_block_arg_t block = {"abc", 3};
  for (int number = 0; number < 5; ++number) {
    rest_call call = {.method = "PUT", .url = server.url(), .writer = tarvex_dsi_rest_write_block};
    call.writer_argument = &block;
    EXPECT_TRUE(call.run().succeeded) << call.message;
  }
  std::vector<int> connections;
  for (const auto& request : server.requests()) connections.push_back(request.connection);
  EXPECT_THAT(connections, testing::ElementsAre(0, 0, 0, 1, 1, 2));
  EXPECT_EQ(server.requests().back().body, "abc");
}

TEST(Transport, AnEarlyRefusalEndsAnUpload) {
  const std::string refusal = answer(413, "no", "Connection: close\r\n"), large(std::size_t{64} << 20, 'x');
  scripted_server server({{.bytes = refusal, .after = then::hang, .early = true}});
  tarvex_dsi_rest_write_block_arg_t block = {large.data(), large.size()};
  rest_call call = {.method = "POST", .url = server.url(), .writer = tarvex_dsi_rest_write_block};
  call.writer_argument = &block;
  EXPECT_TRUE(call.run().succeeded) << call.message;
  EXPECT_EQ(call.response.response_code, 413);
  EXPECT_LT(call.response.request_bytes_uploaded, large.size());
}

TEST(Transport, CancellationEndsARequestAtOnce) {
  tarvex_cancel_t cancel = nullptr;
  ASSERT_EQ(tarvex_cancel_init(&cancel), 0);
  tarvex_cancel_bind(cancel);
  scripted_server server({{"", then::hang}, {answer(200, "later")}});
  std::chrono::steady_clock::time_point asked;
  std::jthread canceller([&] {
    server.wait_for_request();
    asked = std::chrono::steady_clock::now();
    tarvex_cancel_request(cancel);
  });
  const rest_call call = rest_call{.url = server.url()}.run();
  canceller.join();
  EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::milliseconds(500));
  EXPECT_TRUE(!call.succeeded && !call.retryable);
  EXPECT_THAT(call.message, HasSubstr("cancelled"));
  EXPECT_FALSE(rest_call{.url = server.url()}.run().succeeded);  // still cancelled: nothing is sent
  tarvex_cancel_reset(cancel);
  EXPECT_EQ(rest_call{.url = server.url()}.run().body, "later");
  tarvex_cancel_bind(nullptr);
  tarvex_cancel_destroy(&cancel);
}

TEST(Transport, AFailedCallbackEndsTheRequestWithItsError) {
  for (int position = 0; position < 5; ++position) {
    scripted_server server({{position == 3 ? "" : answer(200, "body"), then::hang}});
    rest_call call = {.method = "PUT", .url = server.url()};
    if (position == 0) call.callbacks.response_callback = [](auto...) { return failure("callback"); };
    if (position == 1) call.writer = [](auto...) { return failure("callback"); };
    if (position == 2) call.reader = [](auto...) { return failure("callback"); };
    if (position == 3) call.callbacks.progress_callback = [](auto...) { return failure("callback"); };
    if (position == 4) {
      call.reader = [](auto...) {
        return tarvex_dsi_rest_request("GET", "http://127.0.0.1:1/", nullptr, nullptr, nullptr);
      };
    }
    call.run();
    EXPECT_TRUE(!call.succeeded && !call.retryable && call.completions == 1) << position;
    EXPECT_THAT(call.message, HasSubstr("callback"));
  }
}

TEST(Transport, GoesThroughTheNamedProxyAlone) {
  const struct {
    bool named, elsewhere, proxied;
  } rows[] = {{false, true, false}, {true, true, true}, {true, false, false}};
  for (const auto& row : rows) {
    scripted_server proxy({{answer(200, "proxied")}}), server({{answer(200, "direct")}});
    ASSERT_EQ(tarvex_module_deactivate(&tarvex_i_dsi_rest_module), 0);
    row.named ? setenv("TARVEX_DSI_REST_PROXY", proxy.url("").c_str(), 1) : unsetenv("TARVEX_DSI_REST_PROXY");
    setenv("http_proxy", proxy.url("").c_str(), 1);
    ASSERT_EQ(tarvex_module_activate(&tarvex_i_dsi_rest_module), 0);
    const rest_call call = rest_call{.url = row.elsewhere ? "http://files.invalid/" : server.url()}.run();
    EXPECT_EQ(call.body, row.proxied ? "proxied" : row.elsewhere ? "" : "direct") << call.message;
    EXPECT_EQ(proxy.requests().size(), row.proxied ? 1U : 0U);
  }
  unsetenv("TARVEX_DSI_REST_PROXY");
  ASSERT_EQ(tarvex_module_deactivate(&tarvex_i_dsi_rest_module), 0);
  ASSERT_EQ(tarvex_module_activate(&tarvex_i_dsi_rest_module), 0);
}

}  // namespace
