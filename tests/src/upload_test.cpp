#include "upload_fixture.h"

#include <functional>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

TEST_F(UploadTest, SendsSmallFilesInOneRequest) {
  next().modification_time = 1577934245;
  framework.write_range = {0, -1};
  box_script.expect({stored_answer()});
  EXPECT_EQ(recv("/n", 8), "");
  const Sent& sent = box_script.sent.back();
  EXPECT_EQ(sent.line, std::string("POST ") + UPLOAD + "/content" + FIELDS);
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
  expect_rows({{"cut", {cut}, "transport 7001"},  // the data cannot be sent twice
               {"busy", {code(429)}, "TOO_BUSY"},
               {"no body", {code(201)}, "No metadata response after upload."},
               {"no entries", {code(201, "{}")}, ""},
               {"entries no array", {code(201, R"({"entries":{}})")}, ""},
               {"no type", {code(201, R"({"entries":[{}]})")}, "Failed info_parse!"},
               {"no id", {code(201, R"({"entries":[{"type":"file"}]})")}, "Failed cache update!"}},
              [&](const char*) { return recv("/n", 0); });
  EXPECT_EQ(framework.begun, 7);
  EXPECT_THAT(box_script.sent.back().body, HasSubstr(R"({"name":"n","parent":{"id":"0"}})"));
  next().modification_time_fails = true;
  EXPECT_EQ(recv("/n", 0), "no time");
  EXPECT_EQ(framework.begun, 0);
}

TEST_F(UploadTest, MakesRoomBeforeItStores) {
  const std::string failed =
      "\nBox-Details: \"A file with this name already exists and must be deleted before upload, but deletion failed.\"";
  const auto one_byte = [&](const char* path) { return recv(path, 1); };
  expect_rows({{"/", {}, ""},  // success, with nothing stored, on purpose
               {"/x/y", {}, "PATH_NOT_FOUND\nGridFTP-Path: \"/x/y\""},
               {"/d", {}, "Path is a folder." + failed},
               {"/g", {stored_answer("g")}, ""},
               {"/g", {code(204), stored_answer("g")}, ""}},
              one_byte);
  EXPECT_EQ(box_script.sent[1].line, "DELETE https://api.box.com/2.0/files/77");
  const auto too_large = [&](const char* path) { return recv(path, 200000001); };
  expect_rows({{"/f",
                {code(204)},
                "QUOTA_EXCEEDED\nBox-Path: \"/f\"\nBox-Upload-Size: \"200000001\"\nBox-Max-Upload-Size: "
                "\"200000000\"\nBox-Error: \"Upload size is too large.\""}},
              too_large);
  expect_rows({{"/g", {code(403)}, "PERMISSION_DENIED" + failed}}, one_byte);
}

TEST_F(UploadTest, SendsLargeFilesInParts) {
  next().modification_time = 0;
  client_sends();
  box_script.expect({session_answer(), part_answer(1), part_answer(2), part_answer(3), code(202, "{}"), code(202),
                     stored_answer(), code(201)});
  EXPECT_EQ(recv("/n", 10), "");
  EXPECT_EQ(framework.received, 10);
  ASSERT_EQ(box_script.sent.size(), 8u);
  const auto& sent = box_script.sent;
  EXPECT_EQ(sent[0].line, std::string("POST ") + UPLOAD + "/upload_sessions");
  EXPECT_EQ(sent[0].body, R"({"folder_id":"0","file_size":10,"file_name":"n"})");
  EXPECT_THAT(sent[0].headers, ElementsAre("Authorization: Bearer T", "Content-Type: application/json",
                                           "Content-Length: 48", "Transfer-Encoding: "));
  const char* const bodies[] = {"0123", "4567", "89"};
  const char* const ranges[] = {"0-3", "4-7", "8-9"};
  const char* const digests[] = {
      "xLXIa9V32j2T/qfInLphx4tI5Yk=", "g3h/BgpZSTrv3NSyNpmQ5zA+GG4=", "FrBr2bc4g14tE0/o1ZbpqwCGqYU="};
  for (size_t i = 0; i < 3; ++i) {
    const Sent& part = sent[i + 1];
    EXPECT_EQ(part.line, std::string("PUT ") + UPLOAD + "/upload_sessions/S");
    EXPECT_EQ(part.body, bodies[i]);
    EXPECT_EQ(part.timeout_ms, 60000);
    EXPECT_THAT(part.headers, ElementsAre("Authorization: Bearer T", "Content-Type: application/octet-stream",
                                          std::string("Content-Range: bytes ") + ranges[i] + "/10",
                                          std::string("digest: sha=") + digests[i]));
  }
  EXPECT_EQ(sent[4].line, std::string("POST ") + UPLOAD + "/upload_sessions/S/commit" + FIELDS);
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
  const Answer opened = session_answer(), single = session_answer(R"({"id":"S","part_size":4,"total_parts":1})");
  const Answer part = part_answer(1), later = code(202);
  const std::string unusable = "Failed to parse session info!\n", lost = "cable pulled";
  const std::deque<Block> whole = {{"0123"}, {"4567"}, {"89"}, {"", true}}, one = {{"0123", true}};
  const struct {
    std::deque<Block> blocks;
    Row row;
  } rows[] = {
      {{}, {"session refused", {code(403)}, "PERMISSION_DENIED"}},
      {{}, {"session tried three times", {cut, code(429), cut}, "transport 7001"}},
      {{}, {"session without a body", {code(201)}, "System error in malloc: "}},
      {{}, {"no parts", {session_answer(R"({"part_size":0,"total_parts":0})")}, unusable + "Invalid number of parts!"}},
      {{}, {"no size", {session_answer(R"({"part_size":0,"total_parts":1})")}, unusable + "Invalid part size!"}},
      {{}, {"size not told", {session_answer(R"({"id":"S","total_parts":1})")}, "Invalid part size!"}},
      {{}, {"parts not told", {session_answer(R"({"id":"S","part_size":4})")}, "Operation failed."}},
      {{{"01"}, {"2", false, true}}, {"client lost", {opened}, lost}},
      {{{"0123"}, {"", false, true}}, {"client lost after all bytes", {single}, lost}},
      {whole, {"part tried three times", {opened, cut, code(429), code(429)}, "TOO_BUSY"}},
      {whole, {"part without a body", {opened, {}}, "System error in malloc: "}},
      {whole, {"last answer is odd", {opened, part, part, code(200, "{}")}, "invalid part upload response"}},
      {one, {"never ready", {single, part, later, later, later, later, later}, "Upload is not ready to commit."}},
      {one, {"refused", {single, part, code(412, R"({"code":"bad_digest"})")}, "INCORRECT_CHECKSUM"}},
      {one, {"no metadata", {single, part, stored_answer(), code(401)}, "PERMISSION_DENIED"}},
  };
  for (const auto& [blocks, row] : rows) {
    next().blocks = blocks;
    expect_rows({row}, [&](const char* what) { return recv((std::string("/") + what).c_str(), 10); });
  }
  EXPECT_THAT(box_script.take_waits(), ElementsAre("1.0", "3.0", "7.0", "15.0"));
  next().register_fails = true;
  expect_rows({{"no read", {opened}, "Operation failed."}}, [&](const char*) { return recv("/n", 10); });
}

TEST_F(UploadTest, ContinuesAtAPart) {
  client_sends();
  box_script.expect({session_answer(), part_answer(1), code(403)});
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
  box_script.expect({part_answer(2), part_answer(3), code(412)});
  EXPECT_EQ(recv("/n", 10, false), "No metadata response after upload.");  // a bare 412 passes for a success
  EXPECT_THAT(box_script.sent[2].body, StartsWith(R"({"parts":[{"part_id":"1"},{"part_id":"2"},{"part_id":"3"}]})"));
  // The part list went with the commit: there is nothing to continue any more.
  next().write_range = {8, -1};
  EXPECT_EQ(recv("/n", 10, false), "MULTI_PART_UPLOAD_NOT_FOUND");
}

TEST_F(UploadTest, GenericErrorsSayWhereTheyArise) {
  const auto make = [this](const char*) { return command(TARVEX_GFS_CMD_MKD, "/new"); };
  const auto move = [this](const char*) { return command(TARVEX_GFS_CMD_RNTO, "/g", "/f"); };
  const auto remove = [this](const char*) { return command(TARVEX_GFS_CMD_DELE, "/d"); };
  const auto sum = [this](const char*) { return cksm("SHA1", "/f"); };
  const auto small = [this](const char*) { return recv("/n", 1); };
  const auto large = [this](const char* what) {
    framework.blocks = {{"0123", true}};
    return recv(what, 10);
  };
  const Answer single = session_answer(R"({"id":"S","part_size":4,"total_parts":1})");
  const struct {
    const char* source;
    Row row;
    std::function<std::string(const char*)> call;
  } rows[] = {
      {"delete.cpp:tarvex_i_box_delete_object", {"", {}, "Path is a folder."}, remove},
      {"mkdir.cpp:tarvex_i_box_mkdir", {"", {code(201, "{}")}, "Failed info_parse!"}, make},
      {"rename.cpp:tarvex_i_box_rename", {"", {code(200, "[]")}, "Failed info_parse!"}, move},
      {"cksm.cpp:tarvex_i_box_cksm", {"", {code(302)}, "Box named no download address"}, sum},
      {"recv_small.cpp:tarvex_i_box_recv_small", {"", {code(201)}, "No metadata response"}, small},
      {"upload_session.cpp:tarvex_i_box_create_upload_session",
       {"/1", {session_answer("{\"total_parts\":0}")}, "Failed to parse session"},
       large},
      {"upload_parts.cpp:tarvex_i_box_upload_parts", {"/2", {single, code(200, "{}")}, "invalid part upload"}, large},
      {"commit_upload.cpp:tarvex_i_box_commit_upload",
       {"/3", {single, part_answer(1), code(201)}, "No metadata"},
       large},
  };
  for (const auto& [source, row, call] : rows) {
    expect_rows({row}, call);
    EXPECT_EQ(framework.source, source);
    EXPECT_GT(framework.line, 0);
  }
}

}  // namespace
