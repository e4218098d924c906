#include "fake_operation.h"
#include "http_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

namespace {

using testing::HasSubstr;

std::string pattern(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t index = 0; index < size; ++index) text[index] = static_cast<char>(index * 7 + index / 251);
  return text;
}

constexpr std::size_t NEVER = tarvex_gfs_operation_s::NEVER;
constexpr std::size_t MEGABYTE = 1 << 20;

TEST(GridftpDownload, WritesTheRangeAndNothingElse) {
  const std::string large = pattern(5 * MEGABYTE + 13), whole = answer(200, large);
  const std::string part = answer(206, "cde", "Content-Range: bytes 2-4/9\r\n");
  const std::string other_part = answer(206, "abc", "Content-Range: bytes 0-2/9\r\n");
  struct {
    const char* name;
    std::string bytes;
    tarvex_off_t offset, length;
    const char* range;
    std::optional<std::string> got;  // what the client gets, where it is certain
    const char* failure = "";        // empty: success
    std::size_t failing_write = NEVER;
    std::size_t refused_write = NEVER;
  } const rows[] = {
      {"whole file", whole, 0, -1, nullptr, large},
      {"empty file", answer(200, ""), 0, -1, nullptr, ""},
      {"range", part, 2, 3, "bytes=2-4", "cde"},
      {"more than the range", whole, 0, 3 * MEGABYTE, nullptr, large.substr(0, 3 * MEGABYTE)},
      {"nothing wanted", answer(200, "abc"), 0, 0, nullptr, ""},
      {"range ignored by the server", answer(200, "abcdefghi"), 2, 3, "bytes=2-4", "cde"},
      {"another range", other_part, 2, 3, "bytes=2-4", "", "another range"},
      {"a range without a word of which", answer(206, "<html>"), 0, 3, "bytes=0-2", "", "another range"},
      {"redirect", answer(302, "moved"), 0, -1, nullptr, ""},
      {"error", answer(416, "bad range"), 0, -1, nullptr, ""},
      {"cut short", whole.substr(0, 2 * MEGABYTE), 0, -1, nullptr, std::nullopt, "cut short"},
      {"client gone", whole, 0, -1, nullptr, std::nullopt, "write failed", 2},
      {"client gone at the last write", answer(200, "abc"), 0, -1, nullptr, "", "write failed", 0},
      {"data channel gone", whole, 0, -1, nullptr, std::nullopt, "write refused", NEVER, 1},
      {"negative offset", whole, -1, -1, nullptr, "", "range"},
  };
  // What the client takes at once: nothing; not even all of the first piece; more, but not to the end of a piece.
  for (const std::size_t at_once : {std::size_t{0}, std::size_t{1}, MEGABYTE - 5})
    for (const auto& row : rows) {
      SCOPED_TRACE(testing::Message() << row.name << ", at once " << at_once);
      const bool fails = *row.failure != '\0';
      if (fails && at_once >= row.bytes.size()) continue;
      scripted_server server({{row.bytes, reply::then::close}});
      tarvex_gfs_operation_s operation;
      operation.taken_at_once = at_once;
      operation.failing_write = row.failing_write;
      operation.refused_write = row.refused_write;
      tarvex_dsi_rest_gridftp_op_arg_t argument = {&operation, row.offset, row.length, false};
      rest_call call = {.url = server.url(), .headers = {{"Range", row.range}}};
      call.reader = tarvex_dsi_rest_read_gridftp_op;
      call.reader_argument = &argument;
      call.run();
      EXPECT_EQ(operation.writes, operation.completed);
      EXPECT_EQ(call.succeeded, !fails) << call.message;
      EXPECT_THAT(call.message, HasSubstr(row.failure));
      EXPECT_EQ(call.retryable, std::string(row.failure) == "cut short");
      EXPECT_TRUE(!row.got || operation.got == *row.got || (fails && operation.got.size() == at_once));
      EXPECT_TRUE(operation.got.empty() || operation.got_offset == row.offset);
      EXPECT_EQ(call.completions, 1);
    }
}

/// As long as the client keeps up nothing is registered. It does not any more: all waits for what it has not taken yet.
TEST(GridftpDownload, WritesAtOnceWhatAClientTakes) {
  const std::string large = pattern(5 * MEGABYTE + 13);
  for (const std::size_t at_once : {NEVER, large.size() - 1}) {
    scripted_server server({{answer(200, large)}});
    tarvex_gfs_operation_s operation;
    operation.taken_at_once = at_once;
    tarvex_dsi_rest_gridftp_op_arg_t argument = {&operation, 0, -1, false};
    rest_call call = {.url = server.url(), .reader = tarvex_dsi_rest_read_gridftp_op};
    call.reader_argument = &argument;
    EXPECT_TRUE(call.run().succeeded) << call.message;
    EXPECT_TRUE(operation.got == large && operation.got_offset == 0 && argument.eof);
    EXPECT_EQ(operation.writes, at_once == NEVER ? 0U : 1U);
  }
}

TEST(GridftpDownload, NeverMixesVersions) {
  const auto part = [](const char* range, const std::string& version) {
    return answer(206, "cd", version + "Content-Range: bytes 2-3/" + range + "\r\n");
  };
  const std::string tag = "ETag: \"1\"\r\n", other = "ETag: \"2\"\r\n", date = "Last-Modified: then\r\n";
  const struct {
    std::string first, second;
    bool same;
  } rows[] = {
      {answer(200, "abcd", tag), answer(200, "abcd", tag), true},
      {answer(200, "abcd", tag), answer(200, "abcd", other), false},
      {answer(200, "abcd", tag), answer(200, "abcde", tag), false},
      {answer(200, "abcd", tag), part("4", tag + date), true},
      {part("4", tag), part("5", tag), false},
      {part("*", tag), part("5", ""), true},  // what is not told cannot differ
      {answer(200, "abcd", date), answer(200, "abcd", "Last-Modified: now\r\n"), false},
      {answer(404, "x", tag), answer(200, "abcd", other), true},  // an error is no version of the file
      {answer(200, "abcd", tag), answer(503, "later", other), true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.first + row.second);
    scripted_server server({{row.first.substr(0, row.first.size() - 1), reply::then::close}, {row.second}});
    tarvex_gfs_operation_s operation;
    tarvex_dsi_rest_gridftp_op_arg_t argument = {&operation, 0, -1, false};
    for (const bool second : {false, true}) {
      rest_call call = {.url = server.url(), .reader = tarvex_dsi_rest_read_gridftp_op};
      call.reader_argument = &argument;
      EXPECT_EQ(call.run().succeeded, second && row.same) << call.message;
      EXPECT_EQ(call.retryable, !second);
      EXPECT_EQ(call.message.starts_with("FILE_CHANGED\nGridFTP-Error: "), second && !row.same) << call.message;
    }
  }
}

TEST(GridftpDownload, WaitsForASlowClientWithFewBuffers) {
  const std::string large = pattern(16 * MEGABYTE);
  scripted_server server({{answer(200, large)}});
  tarvex_gfs_operation_s operation;
  operation.before = [&] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); };
  tarvex_dsi_rest_gridftp_op_arg_t argument = {&operation, 0, -1, false};
  rest_call call = {.url = server.url(), .reader = tarvex_dsi_rest_read_gridftp_op};
  call.reader_argument = &argument;
  call.callbacks.progress_callback = tarvex_dsi_rest_progress_idle_timeout;
  call.callbacks.progress_callback_arg = reinterpret_cast<void*>(std::uintptr_t{400});  // less than the client takes
  EXPECT_TRUE(call.run().succeeded) << call.message;
  EXPECT_TRUE(operation.got == large && argument.eof);
  EXPECT_LE(operation.most_in_flight, 8U);
  EXPECT_GT(operation.most_in_flight, 1U);
}

TEST(GridftpDownload, HandsOnWhatHasArrivedWhileTheServerPauses) {
  scripted_server server({{"HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nabc", reply::then::hang}});
  tarvex_gfs_operation_s operation;
  tarvex_cancel_t cancel = nullptr;
  ASSERT_EQ(tarvex_cancel_init(&cancel), 0);
  tarvex_cancel_bind(cancel);
  operation.before = [&] { tarvex_cancel_request(cancel); };
  tarvex_dsi_rest_gridftp_op_arg_t argument = {&operation, 10, -1, false};
  rest_call call = {.url = server.url(), .reader = tarvex_dsi_rest_read_gridftp_op};
  call.reader_argument = &argument;
  EXPECT_THAT(call.run().message, HasSubstr("cancelled"));
  EXPECT_EQ(operation.got, "abc");
  tarvex_cancel_bind(nullptr);
  tarvex_cancel_destroy(&cancel);
}

TEST(GridftpUpload, SendsAWholeBodyOrNone) {
  const std::string large = pattern(5 * MEGABYTE + 13);
  const auto size = static_cast<tarvex_off_t>(large.size());
  struct {
    const char* name;
    std::string sends;
    tarvex_off_t length;
    const char* failure = "";  // empty: success
    std::size_t piece_bytes = NEVER;
    bool eof_with_data = true;
    std::size_t failing_read = NEVER;
    std::size_t refused_read = NEVER;
  } const rows[] = {
      {"length unknown", large, -1},
      {"empty, length unknown", "", -1},
      {"length known", large, size},
      {"empty, length known", "", 0},
      {"short reads", large, size, "", 70001},
      {"end of data on its own", large, size, "", NEVER, false},
      {"end on its own, length unknown", large, -1, "", 70001, false},
      {"too little", large, size + 1, "ended after"},
      {"too much", large, size - 1, "too much data"},
      {"something where nothing was announced", "x", 0, "too much data"},
      {"first read fails", large, -1, "read failed", NEVER, true, 0},
      {"later read fails", large, size, "read failed", NEVER, true, 5},
      {"later read fails, length unknown", large, -1, "read failed", NEVER, true, 5},
      {"first read refused", large, -1, "read refused", NEVER, true, NEVER, 0},
      {"later read refused", large, -1, "read refused", NEVER, true, NEVER, 6},
      {"refused behind the end of data", "abc", -1, "", NEVER, true, NEVER, 1},
  };
  for (const auto& row : rows) {
    for (const bool multipart : {false, true}) {
      SCOPED_TRACE(row.name + std::string(multipart ? ", multipart" : ""));
      scripted_server server({{answer(201, "")}});
      tarvex_gfs_operation_s operation;
      operation.sends = row.sends;
      operation.piece_bytes = row.piece_bytes;
      operation.eof_with_data = row.eof_with_data;
      operation.failing_read = row.failing_read;
      operation.refused_read = row.refused_read;
      tarvex_dsi_rest_gridftp_op_arg_t argument = {&operation, 0, row.length, false};
      tarvex_dsi_rest_write_part_t part = {{0, nullptr}, tarvex_dsi_rest_write_gridftp_op, &argument};
      tarvex_dsi_rest_write_multipart_arg_t parts = {1, &part};
      rest_call call = {
          .method = "POST", .url = server.url(), .headers = {{"Content-Type", "multipart/x; boundary=b"}}};
      call.writer = multipart ? tarvex_dsi_rest_write_multipart : tarvex_dsi_rest_write_gridftp_op;
      call.writer_argument = multipart ? static_cast<void*>(&parts) : &argument;
      call.run();
      const bool good = *row.failure == '\0';
      EXPECT_EQ(call.succeeded, good) << call.message;
      EXPECT_TRUE(!call.retryable && argument.eof == good);
      EXPECT_THAT(call.message, HasSubstr(row.failure));
      const std::size_t framing = multipart ? 16 : 0;
      for (const auto& seen : server.requests()) {
        const bool chunked = seen.head.find("chunked") != std::string::npos;
        const bool whole = chunked ? seen.body.ends_with("0\r\n\r\n") : seen.body.size() == row.length + framing;
        EXPECT_EQ(whole, good);
        EXPECT_TRUE(!good || chunked || seen.body.substr(multipart ? 7 : 0, row.sends.size()) == row.sends);
      }
      EXPECT_TRUE(!good || operation.counted == static_cast<tarvex_off_t>(row.sends.size()));
      EXPECT_TRUE(!good || call.response.request_bytes_uploaded == row.sends.size() + framing);
    }
  }
}

}  // namespace
