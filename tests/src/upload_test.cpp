#include "plugin_fixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

constexpr char upload[] = "https://upload.box.com/api/2.0/files";
constexpr char fields[] = "?fields=type,id,name,parent,size,content_modified_at,sha1";

class UploadTest : public PluginTest {
 protected:
  UploadTest() {
    login({item_json("file", "3", "f"), item_json("folder", "5", "d")});
    tarvex_i_box_chunked_minimum = 8;
  }
  ~UploadTest() override { tarvex_i_box_chunked_minimum = 52428800; }

  static Answer session_answer(const char* text = R"({"id":"S","part_size":4,"total_parts":3})") {
    return {.status = 201, .body = text};
  }
  static Answer part_answer(int number) {
    return {.body = R"({"part":{"part_id":")" + std::to_string(number) + "\"}}"};
  }
  static Answer stored_answer(const char* name = "n") {
    return {.status = 201, .body = page_json({item_json("file", "77", name)})};
  }
  /// The ten bytes "0123456789" as they arrive, the end of the data on its own.
  void client_sends() { framework.blocks = {{"01"}, {"23"}, {"4567"}, {"89"}, {"", true}}; }
};

TEST_F(UploadTest, SendsSmallFilesInOneRequest) {
  next().modification_time = 1577934245;
  framework.write_range = {0, -1};
  box_script.expect({stored_answer()});
  EXPECT_EQ(recv("/n", 8), "");
  const Sent& sent = box_script.sent.back();
  EXPECT_EQ(sent.line, std::string("POST ") + upload + "/content" + fields);
  EXPECT_THAT(sent.headers,
              ElementsAre("Authorization: Bearer T", MatchesRegex("Content-Type: multipart/form-data; boundary=tarvex_"
                                                                  "[0-9a-f-]{36}")));
  EXPECT_EQ(sent.body,
            "Content-Disposition: form-data; name=\"attributes\"\n"
            R"({"name":"n","parent":{"id":"0"},"content_modified_at":"2020-01-02T03:04:05Z"})"
            "\nContent-Disposition: form-data; name=\"file\"; filename=\"n\"\n"
            "Content-Type: application/octet-stream\nDATA 0+-1\n");
  EXPECT_STREQ(cached("/n")->id, "77");
}

TEST_F(UploadTest, JudgesSmallUploads) {
  const struct {
    std::vector<Answer> answers;
    const char* error;
  } rows[] = {
      {{{.transport = Answer::may_be_retried}}, "transport 7001"},  // the data cannot be sent twice
      {{{.status = 429}}, "TOO_BUSY"},
      {{{.status = 201}}, "No metadata response after upload."},
      {{{.status = 201, .body = "{}"}}, ""},
      {{{.status = 201, .body = R"({"entries":{}})"}}, ""},
      {{{.status = 201, .body = R"({"entries":[{}]})"}}, "Failed info_parse!"},
      {{{.status = 201, .body = R"({"entries":[{"type":"file"}]})"}}, "Failed cache update!"},
  };
  for (const auto& row : rows) {
    next();
    box_script.answers.assign(row.answers.begin(), row.answers.end());
    EXPECT_EQ(recv("/n", 0), row.error);
    EXPECT_EQ(framework.begun, 1);
    EXPECT_THAT(box_script.sent.back().body, HasSubstr(R"({"name":"n","parent":{"id":"0"}})"));
  }
  next().modification_time_fails = true;
  EXPECT_EQ(recv("/n", 0), "no time");
  EXPECT_EQ(framework.begun, 0);
}

TEST_F(UploadTest, MakesRoomBeforeItStores) {
  const struct {
    const char* path;
    uint64_t size;
    std::vector<Answer> answers;
    const char* error;
  } rows[] = {
      {"/", 1, {}, ""},  // success, with nothing stored, on purpose
      {"/x/y", 1, {}, "PATH_NOT_FOUND\nGridFTP-Path: \"/x/y\""},
      {"/d",
       1,
       {},
       "Path is a folder.\nBox-Details: \"A file with this name already exists and must be deleted before "
       "upload, but deletion failed.\""},
      {"/f",
       200000001,
       {{.status = 204}},
       "QUOTA_EXCEEDED\nBox-Path: \"/f\"\nBox-Upload-Size: \"200000001\"\nBox-Max-Upload-Size: \"200000000\"\n"
       "Box-Error: \"Upload size is too large.\""},
      {"/f", 1, {stored_answer("f")}, ""},
      {"/f",
       1,
       {{.status = 403}},
       "PERMISSION_DENIED\nBox-Details: \"A file with this name already exists and must be "
       "deleted before upload, but deletion failed.\""},
  };
  for (const auto& row : rows) {
    next();
    box_script.sent.clear();
    box_script.answers.assign(row.answers.begin(), row.answers.end());
    EXPECT_EQ(recv(row.path, row.size), row.error);
    EXPECT_TRUE(box_script.answers.empty());
  }
  next();
  box_script.expect({stored_answer("g"), {.status = 204}, stored_answer("g")});
  for (int i = 0; i < 2; ++i) EXPECT_EQ(recv("/g", 1), "");
  EXPECT_EQ(box_script.sent[box_script.sent.size() - 2].line, "DELETE https://api.box.com/2.0/files/77");
}

TEST_F(UploadTest, SendsLargeFilesInParts) {
  next().modification_time = 0;
  client_sends();
  box_script.expect({session_answer(),
                     part_answer(1),
                     part_answer(2),
                     part_answer(3),
                     {.status = 202, .body = "{}"},
                     {.status = 202},
                     stored_answer(),
                     {.status = 201}});
  EXPECT_EQ(recv("/n", 10), "");
  EXPECT_EQ(framework.received, 10);
  ASSERT_EQ(box_script.sent.size(), 8u);
  const auto& sent = box_script.sent;
  EXPECT_EQ(sent[0].line, std::string("POST ") + upload + "/upload_sessions");
  EXPECT_EQ(sent[0].body, R"({"folder_id":"0","file_size":10,"file_name":"n"})");
  EXPECT_THAT(sent[0].headers, ElementsAre("Authorization: Bearer T", "Content-Type: application/json",
                                           "Content-Length: 48", "Transfer-Encoding: "));
  const char* const bodies[] = {"0123", "4567", "89"};
  const char* const ranges[] = {"0-3", "4-7", "8-9"};
  const char* const digests[] = {
      "xLXIa9V32j2T/qfInLphx4tI5Yk=", "g3h/BgpZSTrv3NSyNpmQ5zA+GG4=", "FrBr2bc4g14tE0/o1ZbpqwCGqYU="};
  for (size_t i = 0; i < 3; ++i) {
    const Sent& part = sent[i + 1];
    EXPECT_EQ(part.line, std::string("PUT ") + upload + "/upload_sessions/S");
    EXPECT_EQ(part.body, bodies[i]);
    EXPECT_EQ(part.timeout_ms, 60000);
    EXPECT_THAT(part.headers, ElementsAre("Authorization: Bearer T", "Content-Type: application/octet-stream",
                                          std::string("Content-Range: bytes ") + ranges[i] + "/10",
                                          std::string("digest: sha=") + digests[i]));
  }
  EXPECT_EQ(sent[4].line, std::string("POST ") + upload + "/upload_sessions/S/commit" + fields);
  EXPECT_EQ(sent[6].body, R"({"attributes":{"content_modified_at":"1970-01-01T00:00:00Z"},)"
                          R"("parts":[{"part_id":"1"},{"part_id":"2"},{"part_id":"3"}]})");
  EXPECT_EQ(sent[6].headers.back(), "digest: sha=h6zsF82dzSCnFsws9nQXtxyKcBY=");
  EXPECT_EQ(sent[7].line, "POST https://api.box.com/2.0/files/77/metadata/global/properties");
  EXPECT_EQ(sent[7].body, R"({"tarvex-md5":"781e5e245d69b566979b86e28d23f2c7"})");
  EXPECT_THAT(box_script.take_waits(), ElementsAre("1.0", "3.0"));
  EXPECT_STREQ(cached("/n")->md5, "781e5e245d69b566979b86e28d23f2c7");
  EXPECT_TRUE(cached("/n")->has_metadata);
  EXPECT_EQ(tarvex_box_upload_state_query(&session->upload_state, "/n"), nullptr);
  next();
  EXPECT_EQ(recv("/m", 10, false), "MULTI_PART_UPLOAD_NOT_FOUND");
}

TEST_F(UploadTest, FailsAtEachStepOfAnUploadInParts) {
  const Answer again = {.transport = Answer::may_be_retried};
  const struct {
    const char* name;
    std::vector<Answer> answers;
    std::deque<Block> blocks;
    std::string error;
  } rows[] = {
      {"session refused", {{.status = 403}}, {}, "PERMISSION_DENIED"},
      {"session tried three times", {again, {.status = 429}, again}, {}, "transport 7001"},
      {"session without a body", {{.status = 201}}, {}, "System error in malloc: "},
      {"no parts",
       {session_answer(R"({"part_size":0,"total_parts":0})")},
       {},
       "Failed to parse session info!\nInvalid number of parts!"},
      {"no size",
       {session_answer(R"({"part_size":0,"total_parts":1})")},
       {},
       "Failed to parse session info!\nInvalid part size!"},
      {"size not told", {session_answer(R"({"id":"S","total_parts":1})")}, {}, "Invalid part size!"},
      {"parts not told", {session_answer(R"({"id":"S","part_size":4})")}, {}, "Operation failed."},
      {"client lost", {session_answer()}, {{"01"}, {"2", false, true}}, "cable pulled"},
      {"client lost at the end",
       {session_answer(), part_answer(1), part_answer(2)},
       {{"0123"}, {"4567"}, {"89"}, {"", false, true}},
       "cable pulled"},
      {"part tried three times", {session_answer(), again, {.status = 429}, {.status = 429}}, {{"0123"}}, "TOO_BUSY"},
      {"part without a body", {session_answer(), {}}, {{"0123"}}, "System error in malloc: "},
      {"last part's answer is odd",
       {session_answer(), part_answer(1), part_answer(2), {.body = "{}"}},
       {{"0123"}, {"4567"}, {"89"}, {"", true}},
       "invalid part upload response"},
      {"never ready",
       {session_answer(R"({"id":"S","part_size":4,"total_parts":1})"),
        part_answer(1),
        {.status = 202},
        {.status = 202},
        {.status = 202},
        {.status = 202},
        {.status = 202}},
       {{"0123"}, {"", true}},
       "Upload is not ready to commit."},
      {"commit refused",
       {session_answer(R"({"id":"S","part_size":4,"total_parts":1})"),
        part_answer(1),
        {.status = 412, .body = R"({"code":"bad_digest"})"}},
       {{"0123", true}},
       "INCORRECT_CHECKSUM"},
      {"metadata refused",
       {session_answer(R"({"id":"S","part_size":4,"total_parts":1})"),
        part_answer(1),
        stored_answer(),
        {.status = 401}},
       {{"0123", true}},
       "PERMISSION_DENIED"},
  };
  int number = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    next().blocks = row.blocks;
    box_script.answers.assign(row.answers.begin(), row.answers.end());
    EXPECT_THAT(recv(("/n" + std::to_string(number++)).c_str(), 10), StartsWith(row.error));
    EXPECT_TRUE(box_script.answers.empty());
  }
  EXPECT_THAT(box_script.take_waits(), ElementsAre("1.0", "3.0", "7.0", "15.0"));
  next().register_fails = true;
  box_script.expect({session_answer()});
  EXPECT_EQ(recv("/n", 10), "Operation failed.");
}

TEST_F(UploadTest, ContinuesAtAPart) {
  client_sends();
  box_script.expect({session_answer(), part_answer(1), {.status = 403}});
  EXPECT_EQ(recv("/n", 10), "PERMISSION_DENIED");
  const struct { tarvex_off_t offset, length; } refused[] = {{3, -1}, {4, 6}, {-4, -1}};
  for (const auto& row : refused) {
    next().write_range = {row.offset, row.length};
    EXPECT_EQ(recv("/n", 10, false), "APPEND_NOT_SUPPORTED");
    EXPECT_EQ(framework.begun, 0);
  }
  next().write_range = {12, -1};  // beyond the last part
  EXPECT_EQ(recv("/n", 10, false), "Operation failed.");
  // A fresh store does not take the place of the session.
  box_script.expect({session_answer()});
  next();
  EXPECT_EQ(recv("/n", 10), "Failed cache update!");
  next().write_range = {4, 10};
  framework.blocks = {{"4567"}, {"89", true}};
  box_script.sent.clear();
  box_script.expect({part_answer(2), part_answer(3), {.status = 412}});
  EXPECT_EQ(recv("/n", 10, false), "No metadata response after upload.");  // a bare 412 passes for a success
  EXPECT_THAT(box_script.sent[2].body, StartsWith(R"({"parts":[{"part_id":"1"},{"part_id":"2"},{"part_id":"3"}]})"));
  // The part list went with the commit: there is nothing to continue any more.
  next().write_range = {8, -1};
  EXPECT_EQ(recv("/n", 10, false), "MULTI_PART_UPLOAD_NOT_FOUND");
}

}  // namespace
