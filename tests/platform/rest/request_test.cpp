#include "http_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <jansson.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using json_ptr = std::unique_ptr<json_t, decltype(&json_decref)>;

/// A writer of the caller's own: the argument is the text that is left, given out in pieces of three bytes.
tarvex_result_t write_threes(void* argument, void* buffer, size_t length, size_t* amount) {
  auto& rest = *static_cast<std::string*>(argument);
  *amount = std::min({std::size_t{3}, length, rest.size()});
  std::memcpy(buffer, rest.data(), *amount);
  rest.erase(0, *amount);
  return TARVEX_SUCCESS;
}

TEST(Request, SendsQueryAndHeadersInOrder) {
  scripted_server server({{answer(200, "")}, {answer(200, "")}});
  rest_call{.url = server.url("/a?b=1#end"),
            .query = {{"fields", "type,id"}, {"gone", nullptr}, {"k y", "ü &=+~-._"}, {"empty", ""}},
            .headers = {{"Authorization", "Bearer t"}, {"digest", "sha=x"}, {"Accept", ""}, {"Absent", nullptr}}}
      .run();
  rest_call{.url = server.url("/plain"), .query = {{"marker", "m"}}}.run();
  const auto seen = server.requests();
  EXPECT_THAT(seen[0].head, StartsWith("GET /a?b=1&fields=type%2Cid&k%20y=%C3%BC%20%26%3D%2B~-._&empty= HTTP/1.1\r\n"));
  EXPECT_THAT(seen[0].head, HasSubstr("\r\nAuthorization: Bearer t\r\ndigest: sha=x\r\n\r\n"));
  EXPECT_THAT(seen[0].head, Not(HasSubstr("Accept")));
  EXPECT_THAT(seen[1].head, StartsWith("GET /plain?marker=m HTTP/1.1\r\n"));
}

TEST(Request, FramesEachBody) {
  struct {
    const char* method;
    bool known;           // a block; else a writer of the caller's own
    const char* content;  // null: no body
    std::vector<std::pair<const char*, const char*>> headers;
    std::string framing;  // how the head speaks of the body
    std::string wire;
  } const rows[] = {
      {"GET", true, nullptr, {}, "", ""},
      {"DELETE", true, nullptr, {}, "", ""},
      {"OPTIONS", true, nullptr, {}, "", ""},
      {"POST", true, nullptr, {}, "Content-Length: 0", ""},
      {"PUT", true, "", {}, "Content-Length: 0", ""},
      {"POST", true, "{\"a\":1}", {}, "Content-Length: 7", "{\"a\":1}"},
      {"POST", true, "12345", {{"Content-Length", "5"}, {"Transfer-Encoding", ""}}, "Content-Length: 5", "12345"},
      {"DELETE", true, "x", {}, "Content-Length: 1", "x"},
      {"PUT", false, "12345", {}, "Transfer-Encoding: chunked", "3\r\n123\r\n2\r\n45\r\n0\r\n\r\n"},
      {"PUT", false, "12345", {{"content-length", "5"}}, "content-length: 5", "12345"},
      {"PUT", false, "", {}, "Transfer-Encoding: chunked", "0\r\n\r\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.method + row.framing);
    scripted_server server({{answer(200, "")}});
    std::string text = row.content == nullptr ? "" : row.content;
    tarvex_dsi_rest_write_block_arg_t block = {row.content, text.size()};
    rest_call call = {.method = row.method, .url = server.url(), .headers = row.headers};
    if (row.content != nullptr) call.writer = row.known ? tarvex_dsi_rest_write_block : write_threes;
    call.writer_argument = row.known ? static_cast<void*>(&block) : &text;
    EXPECT_TRUE(call.run().succeeded) << call.message;
    const seen_request seen = server.requests().at(0);
    EXPECT_EQ(seen.body, row.wire);
    EXPECT_THAT(seen.head, HasSubstr("\r\n" + row.framing));
    for (const char* word : {"Content-Length", "Transfer-Encoding", "Expect", "Content-Type"}) {
      EXPECT_EQ(seen.head.find(word) != std::string::npos, row.framing.starts_with(word)) << word;
    }
    EXPECT_EQ(call.response.request_bytes_uploaded, row.content == nullptr ? 0 : std::strlen(row.content));
  }
}

TEST(Request, FramesMultipart) {
  tarvex_dsi_rest_write_block_arg_t block = {"{\"name\":\"n\"}", 12};
  const json_ptr document(json_pack("{s:i, s:[b]}", "z", 1, "a", 0), json_decref);
  for (const bool length_known : {true, false}) {
    std::string own = "12345", key = "Content-Disposition", value = "form-data; name=\"attributes\"";
    tarvex_dsi_rest_key_value_t header = {key.data(), value.data()};
    tarvex_dsi_rest_write_part_t parts[] = {{{1, &header}, tarvex_dsi_rest_write_block, &block},
                                            {{0, nullptr}, tarvex_dsi_rest_write_json, document.get()},
                                            {{0, nullptr}, length_known ? nullptr : write_threes, &own}};
    tarvex_dsi_rest_write_multipart_arg_t multipart = {3, parts};
    scripted_server server({{answer(201, "")}});
    rest_call call = {.method = "POST",
                      .url = server.url(),
                      .headers = {{"Content-Type", "multipart/form-data; charset=x; Boundary=\"tarvex_0-a\""}},
                      .writer = tarvex_dsi_rest_write_multipart,
                      .writer_argument = &multipart};
    EXPECT_TRUE(call.run().succeeded) << call.message;
    const std::string start =
        "--tarvex_0-a\r\nContent-Disposition: form-data; name=\"attributes\"\r\n\r\n{\"name\":\"n\"}\r\n"
        "--tarvex_0-a\r\n\r\n{\"z\":1,\"a\":[false]}\r\n--tarvex_0-a\r\n\r\n";
    const seen_request seen = server.requests().at(0);
    EXPECT_EQ(seen.body == start + "\r\n--tarvex_0-a--\r\n", length_known) << seen.body;
    EXPECT_EQ(seen.body.find("\r\n123\r\n2\r\n45\r\n") == std::string::npos, length_known);
    EXPECT_EQ(call.response.request_bytes_uploaded, start.size() + (length_known ? 18 : 23));
  }
}

TEST(Request, RefusesWhatCannotBeSent) {
  tarvex_dsi_rest_write_block_arg_t block = {"abc", 3};
  struct {
    const char* method;
    const char* url;
    std::pair<const char*, const char*> header;
    tarvex_dsi_rest_write_t writer;
    const char* message;
  } const rows[] = {
      {"GET", "http://127.0.0.1:1/", {"A", "b\r\nC: d"}, nullptr, "line break"},
      {"GET", "http://127.0.0.1:1/", {"A\n", "b"}, nullptr, "header's name"},
      {"GET /\r\n", "http://127.0.0.1:1/", {"A", "b"}, nullptr, "method"},
      {"GET", "http://127.0.0.1:1/\r\nA: b", {"A", "b"}, nullptr, "control character"},
      {"GET", "ftp://127.0.0.1:1/", {"A", "b"}, nullptr, "Only http and https"},
      {"GET", "file:///etc/passwd", {"A", "b"}, nullptr, "Only http and https"},
      {"GET", "example.com/", {"A", "b"}, nullptr, "URL is not valid"},
      {"GET", "", {"A", "b"}, nullptr, "URL is not valid"},
      {"GET", "http://h:99999/?token=secret", {"A", "b"}, nullptr, "URL is not valid"},
      {"PUT", "http://127.0.0.1:1/", {"Content-Length", "4"}, tarvex_dsi_rest_write_block, "3 bytes"},
      {"PUT", "http://127.0.0.1:1/", {"Content-Length", "-3"}, tarvex_dsi_rest_write_block, "number"},
      {"POST", "http://127.0.0.1:1/", {"Content-Type", "multipart/x"}, tarvex_dsi_rest_write_multipart, "boundary"},
      {"POST", "http://127.0.0.1:1/", {"Transfer-Encoding", ""}, write_threes, "Transfer-Encoding"},
  };
  for (const auto& row : rows) {
    rest_call call = {.method = row.method, .url = row.url, .headers = {row.header}, .writer = row.writer};
    call.writer_argument = &block;
    call.run();
    EXPECT_FALSE(call.succeeded || call.retryable) << row.url;
    EXPECT_THAT(call.message, testing::AllOf(HasSubstr(row.message), Not(HasSubstr("secret"))));
    EXPECT_EQ(call.completions, 1);
  }
}

TEST(Request, ReadsJsonInEveryShape) {
  const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  const std::string interim = "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Hints\r\nA: b\r\n\r\n";
  const std::size_t limit = std::size_t{64} << 20;
  struct {
    reply sent;
    const char* document;  // null: none
    bool succeeds = true;
  } const rows[] = {
      {{answer(200, "{\"b\":1,\"a\":[]}")}, "{\"b\":1,\"a\":[]}"},
      {{answer(404, "{\"code\":\"not_found\"}")}, "{\"code\":\"not_found\"}"},
      {{.bytes = chunked + "2\r\n[4\r\n2\r\n2]\r\n0\r\nStatus: 9\r\n\r\n", .piece_bytes = 1}, "[42]"},
      {{interim + answer(201, "[]")}, "[]"},
      {{answer(502, "<html>Bad gateway</html>")}, nullptr},
      {{answer(200, "{\"a\":")}, nullptr},
      {{"HTTP/1.1 204 No Content\r\n\r\n"}, nullptr},
      {{answer(200, "[\"\xff\"]")}, nullptr},
      {{answer(200, std::string("[1]\0", 4))}, nullptr},
      {{answer(200, std::string(100000, '['))}, nullptr},
      {{answer(200, "[]" + std::string(limit - 2, ' '))}, "[]"},
      {{answer(200, "[]" + std::string(limit - 1, ' '))}, nullptr, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.sent.bytes.substr(0, 200));
    scripted_server server({row.sent});
    json_t* document = nullptr;
    rest_call call = {.url = server.url(), .reader = tarvex_dsi_rest_read_json, .reader_argument = &document};
    EXPECT_EQ(call.run().succeeded, row.succeeds) << call.message;
    const json_ptr owned(document, json_decref);
    const json_ptr expected(row.document == nullptr ? nullptr : json_loads(row.document, 0, nullptr), json_decref);
    EXPECT_TRUE(document == nullptr ? expected == nullptr : json_equal(document, expected.get()) == 1);
  }
}

// What repeats from item to item is read once: nothing of an item may show up in the next that merely begins alike.
TEST(Request, ReadsJsonAsJanssonDoes) {
  const std::string texts[] = {
      R"([{"n":1,"s":"a","o":{"i":"7"}},{"n":12,"s":"a","o":{"i":"7"}},{"n":12,"s":"ab","o":{"i":"7","j":[]}}])",
      R"([{"n":12},{"n":1},{"n":-1},{"n":1.5},{"n":1e2},{"n":-0}])",
      R"([{"a":"x","b":"y"},{"b":"x","a":"y"},{"a":"x"},{},{"a":"x","b":"y","c":null}])",
      R"([{"t":true,"z":null},{"t":true,"z":null},{"t":false,"z":null}])",
      R"([{"a":"x","a":"y","b":"z"},{"a":"x","a":"y","b":"z"},{"a":"x"}])",
      R"([[{"a":["x"]},{"a":["x"]}],[{"a":["x","y"]}]])",
      " { \"entries\" : [ { \"a\" : \"x\" } ,\r\n\t{ \"a\" : \"x\" } ] , \"next_marker\" : \"\" } \n",
      R"({"\u00e9\n":"\ud83d\ude00 \"q\" \/","é":"é😀"})",
      R"([9223372036854775807,-9223372036854775808,0])",
      R"([9223372036854775808])",
      R"([{"n":1},{"n":1x}])",
      R"([{"n":null},{"n":nullx}])",
      R"([{"a":"x"},{"a":"x""b":1}])",
      R"([{"a":"x"},{"a":"x",}])",
      R"([{"a":"x"},])",
      R"([{"a":"x"} {"a":"x"}])",
      R"([01])",
      R"([-])",
      R"([{"a":"x"}]])",
      R"({"a":"x")",
      R"({"a")",
      R"("a")",
      R"(1)",
      "",
      "[\"\x1f\"]",
      "[\"\\u0000\"]",
      "[\"\xc3\x28\"]",
      "{\"\xff\":1}",
      std::string(100, '[') + std::string(100, ']'),
  };
  for (const std::string& text : texts) {
    SCOPED_TRACE(text);
    scripted_server server({{answer(200, text)}});
    json_t* document = nullptr;
    rest_call call = {.url = server.url(), .reader = tarvex_dsi_rest_read_json, .reader_argument = &document};
    ASSERT_TRUE(call.run().succeeded) << call.message;
    const json_ptr owned(document, json_decref);
    const json_ptr expected(json_loadb(text.data(), text.size(), 0, nullptr), json_decref);
    EXPECT_TRUE(document == nullptr ? expected == nullptr : json_equal(document, expected.get()) == 1);
  }
}

TEST(Request, ReportsTheFinalAnswerAndFollowsNoRedirect) {
  const std::string headers = "location: http://127.0.0.1:1/x\r\nRETRY-AFTER:\t 7 \r\nX: 1\r\n";
  scripted_server server({{"HTTP/1.1 103 Hints\r\nLocation: hint\r\n\r\n" + answer(302, "moved", headers)}});
  char names[3][12] = {"Retry-After", "Location", "Missing"};
  tarvex_dsi_rest_key_value_t wanted[] = {{names[0], strdup("old")}, {names[1], nullptr}, {names[2], nullptr}};
  rest_call call = {.url = server.url()};
  call.response.desired_headers = {3, wanted};
  EXPECT_TRUE(call.run().succeeded) << call.message;
  EXPECT_EQ(call.response.response_code, 302);
  EXPECT_EQ(call.response.response_bytes_downloaded, 5U);
  EXPECT_STREQ(wanted[0].value, "7");
  EXPECT_STREQ(wanted[1].value, "http://127.0.0.1:1/x");
  EXPECT_EQ(wanted[2].value, nullptr);
  for (auto& pair : wanted) std::free(pair.value);
}

}  // namespace
