#include "plugin_fixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr char api[] = "https://api.box.com/2.0";
constexpr char fields[] = "?fields=type,id,name,parent,size,content_modified_at,sha1";
constexpr char md5_of_abc[] = "900150983cd24fb0d6963f7d28e17f72";
constexpr char sha1_of_abc[] = "a9993e364706816aba3e25717850c26c9cd0d89d";

class CommandTest : public PluginTest {
 protected:
  CommandTest() {
    login({item_json("folder", "1", "d"), item_json("folder", "2", "e"), item_json("file", "3", "f"),
           item_json("file", "4", "s", "0", std::string(R"(,"sha1":")") + sha1_of_abc + "\"")});
    for (const char* const folder : {"/d", "/e"}) cached(folder)->listed = true;
  }
};

TEST_F(CommandTest, RefusesWhatItDoesNotServe) {
  for (const int type : {0, 4, 7, 9, 16, 18, 23, 3072, 3078, 4096, 5000}) {
    EXPECT_EQ(command(static_cast<tarvex_gfs_command_type_t>(type), "/f"), "NOT_IMPLEMETED") << type;
    EXPECT_EQ(framework.reply_code, 500);
    EXPECT_EQ(framework.text, "(null)");
  }
  EXPECT_THAT(box_script.sent, IsEmpty());
}

TEST_F(CommandTest, MakesFolders) {
  const Answer made = {.status = 201, .body = item_json("folder", "9", "new", "1")};
  const struct {
    const char* path;
    std::vector<Answer> answers;
    const char* error;
  } rows[] = {
      {"/d", {}, ""},
      {"/f", {}, "NOT_A_DIRECTORY\nGridFTP-Path: /f"},
      {"/x/y", {}, "NOT_A_DIRECTORY\nGridFTP-Path: /x"},
      {"/", {}, "NOT_A_DIRECTORY\nGridFTP-Path: "},
      {"/d/bad\xff", {}, "INVALID_PATH_NAME\nGridFTP-Path: <Invalid Name>"},
      {"/d/new", {{.status = 409}}, "PATH_EXISTS"},
      {"/d/new", {{.status = 429}, {.status = 429}}, "TOO_BUSY"},
      {"/d/new", {{.transport = Answer::is_final}}, "transport 7002"},
      {"/d/new", {{.status = 201}}, "System error in malloc: "},
      {"/d/new", {{.status = 201, .body = "{}"}}, "Failed info_parse!"},
      {"/d/new", {{.status = 201, .body = R"({"type":"folder"})"}}, "Failed cache update!"},
      {"/d/new", {{.transport = Answer::may_be_retried}, made}, ""},
      {"/d/new", {}, ""},  // known from now on
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.error);
    box_script.answers.assign(row.answers.begin(), row.answers.end());
    EXPECT_THAT(command(TARVEX_GFS_CMD_MKD, row.path), testing::StartsWith(row.error));
    EXPECT_EQ(framework.text, row.path);
    EXPECT_TRUE(box_script.answers.empty());
  }
  const Sent& sent = box_script.sent.back();
  EXPECT_EQ(sent.line, std::string("POST ") + api + "/folders" + fields);
  EXPECT_THAT(sent.headers, ElementsAre("Authorization: Bearer T", "Content-Type: application/json;"));
  EXPECT_EQ(sent.body, R"({"name":"new","parent":{"id":"1"}})");
  EXPECT_DEATH(command(TARVEX_GFS_CMD_MKD, "x"), "name != NULL");
}

TEST_F(CommandTest, DeletesWhatFitsTheCommand) {
  const struct {
    tarvex_gfs_command_type_t type;
    const char* path;
    std::vector<Answer> answers;
    const char* error;
    const char* line;  ///< after "DELETE" and the base
    bool stays;
  } rows[] = {
      {TARVEX_GFS_CMD_DELE, "/d", {}, "Path is a folder.", "", true},
      {TARVEX_GFS_CMD_RMD, "/f", {}, "Path is a file.", "", true},
      {TARVEX_GFS_CMD_SITE_RDEL, "/f", {}, "Path is a file.", "", true},
      {TARVEX_GFS_CMD_DELE, "/x", {}, "PATH_NOT_FOUND\nGridFTP-Path: \"/x\"", "", false},
      {TARVEX_GFS_CMD_DELE, "/f", {{.status = 204}}, "", "/files/3", false},
      {TARVEX_GFS_CMD_DELE, "/s", {{.status = 429, .headers = {{"Retry-After", "1"}}}}, "TOO_BUSY", "/files/4", false},
      {TARVEX_GFS_CMD_RMD,
       "/d",
       {{.transport = Answer::may_be_retried}, {.transport = Answer::may_be_retried}},
       "transport 7001",
       "/folders/1",
       false},
      {TARVEX_GFS_CMD_SITE_RDEL,
       "/e",
       {{.transport = Answer::may_be_retried}, {.status = 204}},
       "",
       "/folders/2?recursive=true",
       false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    box_script.answers.assign(row.answers.begin(), row.answers.end());
    EXPECT_EQ(command(row.type, row.path), row.error);
    EXPECT_EQ(framework.text, "(null)");
    const std::vector<std::string> expected(row.answers.size(), std::string("DELETE ") + api + row.line);
    for (const Sent& sent : box_script.sent) EXPECT_THAT(sent.headers, ElementsAre("Authorization: Bearer T"));
    EXPECT_EQ(box_script.take_lines(), expected);
    EXPECT_EQ(cached(row.path) != nullptr, row.stays);
  }
  EXPECT_THAT(text_of(tarvex_i_box_delete_object(session, cached("/"), 99)), HasSubstr("System error in malloc"));
}

TEST_F(CommandTest, RenamesAndMoves) {
  const struct {
    const char* from;
    const char* to;
    std::vector<Answer> answers;
    const char* error;
  } rows[] = {
      {"/x", "/y", {}, "PATH_NOT_FOUND\nGridFTP-Path: \"/x\""},
      {"/f", "/x/y", {}, "NOT_A_DIRECTORY\nGridFTP-Path: /x"},
      {"/f", "/s", {}, "PATH_EXISTS\nGridFTP-Path: /s"},
      {"/f", "/f", {}, "PATH_EXISTS\nGridFTP-Path: /f"},
      {"/f", "/d", {}, "PATH_EXISTS\nGridFTP-Path: /d"},
      {"/f", "/e/g", {{.status = 403}}, "PERMISSION_DENIED"},
      {"/f", "/e/g", {{.status = 200}}, "System error in malloc: "},
      {"/f", "/e/g", {{.status = 429}, {.body = "[]"}}, "Failed info_parse!"},
      {"/f", "/e/g", {{.body = item_json("file", "3", "g", "2")}}, ""},
      {"/d", "/e/d", {{.body = item_json("folder", "1", "d", "2")}}, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.from) + " " + row.to + " " + row.error);
    box_script.answers.assign(row.answers.begin(), row.answers.end());
    EXPECT_THAT(command(TARVEX_GFS_CMD_RNTO, row.to, row.from), testing::StartsWith(row.error));
    EXPECT_TRUE(box_script.answers.empty());
    if (*row.error != '\0') continue;
    EXPECT_EQ(cached(row.from), nullptr);
    EXPECT_NE(cached(row.to), nullptr);
  }
  const Sent folder = box_script.sent.back();
  EXPECT_EQ(folder.line, std::string("PUT ") + api + "/folders/1" + fields);
  EXPECT_THAT(folder.headers, ElementsAre("Authorization: Bearer T", "Content-Type: application/json;"));
  EXPECT_EQ(folder.body, R"({"name":"d","parent":{"id":"2"}})");
  box_script.sent.pop_back();
  EXPECT_EQ(box_script.sent.back().line, std::string("PUT ") + api + "/files/3" + fields);
  EXPECT_EQ(box_script.sent.back().body, R"({"name":"g","parent":{"id":"2"}})");
}

TEST_F(CommandTest, RenamesWhatTheTargetsListingReplaces) {
  cached("/d")->listed = false;
  const Answer page = {.body = page_json({item_json("file", "7", "a", "1")})};
  box_script.expect({page});
  ASSERT_EQ(stat_path("/d/a", true), "");
  cached("/d")->listed = false;  // so the target's absence lists the folder, and the source's record goes
  box_script.expect({page, {.body = item_json("file", "7", "b", "1")}});
  EXPECT_EQ(command(TARVEX_GFS_CMD_RNTO, "/d/b", "/d/a"), "");
  EXPECT_THAT(box_script.sent.back().line, HasSubstr("/files/7?"));
  EXPECT_EQ(cached("/d/a"), nullptr);
}

TEST_F(CommandTest, KnowsDigests) {
  EXPECT_EQ(cksm("sha1", "/s"), sha1_of_abc);
  EXPECT_EQ(cksm("ADLER32", "/s"), "(null)");
  EXPECT_EQ(cksm("MD5", "/s", 0, 0), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(cksm("SHA1", "/s", 5, 0), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_THAT(cksm("MD5", "/x"), HasSubstr("PATH_NOT_FOUND"));
  EXPECT_THAT(box_script.sent, IsEmpty());
  box_script.expect(
      {{.body = item_json("file", "4", "s", "0", R"(,"metadata":{"global":{"properties":{"tarvex-md5":"beef"}}})")}});
  EXPECT_EQ(cksm("Md5", "/s"), "beef");
  EXPECT_EQ(cksm("MD5", "/s"), "beef");
  EXPECT_THAT(box_script.take_lines(), SizeIs(1));
}

TEST_F(CommandTest, ComputesAndRecordsDigests) {
  box_script.expect({{.status = 404}, redirect_answer(), {.body = "abc"}, {.status = 201, .body = "{}"}});
  EXPECT_EQ(cksm("MD5", "/s"), md5_of_abc);
  ASSERT_EQ(box_script.sent.size(), 4u);
  EXPECT_EQ(box_script.sent[1].line, std::string("GET ") + api + "/files/4/content");
  EXPECT_EQ(box_script.sent[2].line, "GET https://dl.box.com/f");
  EXPECT_THAT(box_script.sent[2].headers, ElementsAre("Authorization: Bearer T"));
  EXPECT_EQ(box_script.sent[3].line, std::string("POST ") + api + "/files/4/metadata/global/properties");
  EXPECT_THAT(box_script.sent[3].headers, ElementsAre("Authorization: Bearer T", "Content-Type: application/json"));
  EXPECT_EQ(box_script.sent[3].body, std::string(R"({"tarvex-md5":")") + md5_of_abc + "\"}");
  EXPECT_EQ(cksm("MD5", "/s"), md5_of_abc);
  EXPECT_EQ(box_script.sent.size(), 4u);
  EXPECT_TRUE(cached("/s")->has_metadata);
  // A range whose digest is not the file's is not recorded; a failed record does not fail the command.
  box_script.expect({redirect_answer(), {.status = 206, .body = "bc"}});
  EXPECT_EQ(cksm("SHA1", "/s", 1), "5b2505039ac5af9e197f5dad04113906a9cf9a2a");
  EXPECT_THAT(box_script.sent.back().headers, ElementsAre("Authorization: Bearer T", "Range: bytes=1-"));
  free(std::exchange(cached("/s")->md5, nullptr));
  box_script.expect({redirect_answer(), {.body = "abc"}, {.status = 403}});
  EXPECT_EQ(cksm("MD5", "/s", 1), md5_of_abc);
  EXPECT_THAT(box_script.sent.back().line, testing::StartsWith("PUT "));
  EXPECT_STREQ(cached("/s")->md5, md5_of_abc);
}

TEST_F(CommandTest, FailsChecksums) {
  const struct {
    std::vector<Answer> answers;
    const char* error;
  } rows[] = {
      {{{.status = 404}}, "PATH_NOT_FOUND"},
      {{{.status = 200}, {.status = 200}}, "TOO_BUSY"},  // only a redirect leads on
      {{{.status = 302}}, "Box named no download address"},
      {{redirect_answer("http://dl.box.com/f")}, "Box named a download address that is not https"},
      {{redirect_answer("file:///etc/passwd")}, "Box named a download address that is not https"},
      {{redirect_answer(), {.transport = Answer::may_be_retried}, {.transport = Answer::may_be_retried}},
       "transport 7001"},
      {{{.transport = Answer::may_be_retried}, redirect_answer(), {.transport = Answer::may_be_retried}},
       "transport 7001"},
      {{{.status = 429}, redirect_answer(), {.status = 429}}, "TOO_BUSY"},
      {{redirect_answer(), {.status = 403, .body = "x"}}, "PERMISSION_DENIED"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.error);
    box_script.answers.assign(row.answers.begin(), row.answers.end());
    EXPECT_THAT(cksm("SHA1", "/f", 0), testing::StartsWith(row.error));
    EXPECT_TRUE(box_script.answers.empty());
  }
  // An explicit length is read again and again, until a request fails, on purpose.
  box_script.sent.clear();
  box_script.expect({redirect_answer(), {.body = "ab"}, redirect_answer(), {.body = "ab"}, {.status = 403}});
  EXPECT_EQ(cksm("SHA1", "/s", 0, 2), "PERMISSION_DENIED");
  EXPECT_THAT(box_script.sent.back().headers, ElementsAre("Authorization: Bearer T", "Range: bytes=0-1"));
}

TEST_F(CommandTest, TellsProgress) {
  tarvex_i_box_cksm_state_t state{};
  state.op = framework.op();
  state.response_freq = 5;
  state.response_due = static_cast<int>(box_script.now.tv_sec) + 5;
  for (const int seconds : {4, 1, 4, 1}) {
    box_script.now.tv_sec += seconds;
    EXPECT_EQ(tarvex_i_box_cksm_cb(&state, const_cast<char*>("abc"), 3), TARVEX_SUCCESS);
  }
  EXPECT_THAT(framework.progress, ElementsAre("6", "12"));
}

TEST_F(CommandTest, StoresProperties) {
  tarvex_box_path_info_t* const folder = cached("/d");
  box_script.expect({{.transport = Answer::may_be_retried}, {.transport = Answer::may_be_retried}});
  EXPECT_EQ(text_of(tarvex_i_box_set_metadata(session, folder, "k", "v")), "transport 7001");
  EXPECT_FALSE(folder->has_metadata);
  box_script.expect({{.status = 409, .body = R"({"code":"tuple_already_exists"})"}});
  EXPECT_EQ(text_of(tarvex_i_box_set_metadata(session, folder, "k", "v")), "code: \"tuple_already_exists\"");
  box_script.expect({{.status = 201}, {.status = 200}});
  for (int i = 0; i < 2; ++i) EXPECT_EQ(tarvex_i_box_set_metadata(session, folder, "k", "v"), TARVEX_SUCCESS);
  const Sent& patch = box_script.sent.back();
  EXPECT_EQ(patch.line, std::string("PUT ") + api + "/folders/1/metadata/global/properties");
  EXPECT_THAT(patch.headers, ElementsAre("Authorization: Bearer T", "Content-Type: application/json-patch+json"));
  EXPECT_EQ(patch.body, R"([{"op":"add","path":"/k","value":"v"}])");
}

TEST_F(CommandTest, SendsRanges) {
  using Ranges = std::deque<std::pair<tarvex_off_t, tarvex_off_t>>;
  const struct {
    Ranges ranges;
    std::vector<Answer> answers;
    const char* error;
    std::vector<std::string> targets;
    const char* last_range;
  } rows[] = {
      {{{0, 0}}, {}, "", {}, ""},
      {{{0, -1}, {9, 9}}, {redirect_answer(), {.status = 200}}, "", {"0+-1"}, ""},
      {{{100, -1}}, {redirect_answer(), {.status = 206}}, "", {"100+-1"}, "Range: bytes=100-"},
      {{{100, 50}, {200, 1}, {0, 0}},
       {redirect_answer(), {.status = 206}, redirect_answer(), {.status = 206}},
       "",
       {"100+50", "200+1"},
       "Range: bytes=200-200"},
      {{{0, -1}}, {{.status = 404}}, "PATH_NOT_FOUND", {}, ""},
      {{{0, -1}}, {{.status = 302}}, "Box named no download address", {}, ""},
      {{{0, -1}}, {redirect_answer(), {.status = 418}}, "", {"0+-1"}, ""},
      {{{0, -1}}, {redirect_answer(), {.transport = Answer::is_final}}, "transport 7002", {}, ""},
      {{{0, -1}}, {redirect_answer(), {.transport = Answer::may_be_retried}, {.status = 200}}, "", {"0+-1"}, ""},
      {{{0, -1}},
       {{.status = 429, .headers = {{"Retry-After", "4"}}},
        redirect_answer(),
        {.status = 503, .headers = {{"Retry-After", "4"}}}},
       "INTERNAL_ERROR",
       {"0+-1"},
       ""},
      {{{5, 5}, {10, 5}},
       {redirect_answer(), {.status = 206}, {.status = 403}},
       "PERMISSION_DENIED",
       {"5+5"},
       "Range: bytes=10-14"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.error + std::to_string(row.answers.size()));
    next().read_ranges = row.ranges;
    box_script.sent.clear();
    box_script.answers.assign(row.answers.begin(), row.answers.end());
    EXPECT_THAT(send("/f"), testing::StartsWith(row.error));
    EXPECT_EQ(framework.begun, 1);
    std::vector<std::string> targets;
    for (const Sent& sent : box_script.sent) {
      if (!sent.target.empty()) targets.push_back(sent.target);
    }
    EXPECT_EQ(targets, row.targets);
    if (*row.last_range != '\0') {
      EXPECT_EQ(box_script.sent.back().headers.back(), row.last_range);
    }
    EXPECT_TRUE(box_script.answers.empty());
  }
  EXPECT_THAT(next().asked, IsEmpty());
  EXPECT_THAT(send("/x"), HasSubstr("PATH_NOT_FOUND"));
  EXPECT_EQ(framework.begun, 0);
}

}  // namespace
