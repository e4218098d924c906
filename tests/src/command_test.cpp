#include "plugin_fixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr char API[] = "https://api.box.com/2.0";
constexpr char FIELDS[] = "?fields=type,id,name,parent,size,content_modified_at,sha1";
constexpr char MD5_OF_ABC[] = "900150983cd24fb0d6963f7d28e17f72";
constexpr char SHA1_OF_ABC[] = "a9993e364706816aba3e25717850c26c9cd0d89d";

class CommandTest : public PluginTest {
 protected:
  CommandTest() {
    login({item_json("folder", "1", "d"), item_json("folder", "2", "e"), item_json("file", "3", "f"),
           item_json("file", "4", "s", "0", std::string(R"(,"sha1":")") + SHA1_OF_ABC + "\"")});
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
  const Answer made = code(201, item_json("folder", "9", "new", "1"));
  const std::vector<Row> rows = {
      {"/d", {}, ""},
      {"/f", {}, "NOT_A_DIRECTORY\nGridFTP-Path: /f"},
      {"/x/y", {}, "NOT_A_DIRECTORY\nGridFTP-Path: /x"},
      {"/", {}, "NOT_A_DIRECTORY\nGridFTP-Path: "},
      {"/d/bad\xff", {}, "INVALID_PATH_NAME\nGridFTP-Path: <Invalid Name>"},
      {"/d/new", {code(409)}, "PATH_EXISTS"},
      {"/d/new", {code(429), code(429)}, "TOO_BUSY"},
      {"/d/new", {dead}, "transport 7002"},
      {"/d/new", {code(201)}, "System error in malloc: "},
      {"/d/new", {code(201, "{}")}, "Failed info_parse!"},
      {"/d/new", {code(201, R"({"type":"folder"})")}, "Failed cache update!"},
      {"/d/new", {cut, made}, ""},
      {"/d/new", {}, ""},  // known from now on
  };
  expect_rows(rows, [&](const char* path) {
    const std::string error = command(TARVEX_GFS_CMD_MKD, path);
    EXPECT_EQ(framework.text, path);
    return error;
  });
  const Sent& sent = box_script.sent.back();
  EXPECT_EQ(sent.line, std::string("POST ") + API + "/folders" + FIELDS);
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
      {TARVEX_GFS_CMD_DELE, "/f", {code(204)}, "", "/files/3", false},
      {TARVEX_GFS_CMD_DELE, "/s", {code(429, "", "1")}, "TOO_BUSY", "/files/4", false},
      {TARVEX_GFS_CMD_RMD, "/d", {cut, cut}, "transport 7001", "/folders/1", false},
      {TARVEX_GFS_CMD_SITE_RDEL, "/e", {cut, code(204)}, "", "/folders/2?recursive=true", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    box_script.answers.assign(row.answers.begin(), row.answers.end());
    EXPECT_EQ(command(row.type, row.path), row.error);
    EXPECT_EQ(framework.text, "(null)");
    const std::vector<std::string> expected(row.answers.size(), std::string("DELETE ") + API + row.line);
    for (const Sent& sent : box_script.sent) EXPECT_THAT(sent.headers, ElementsAre("Authorization: Bearer T"));
    EXPECT_EQ(box_script.take_lines(), expected);
    EXPECT_EQ(cached(row.path) != nullptr, row.stays);
  }
  EXPECT_THAT(text_of(tarvex_i_box_delete_object(session, cached("/"), 99)), HasSubstr("System error in malloc"));
}

TEST_F(CommandTest, RenamesAndMoves) {
  const char* target = "/x/y";
  const auto rename = [&](const char* from) { return command(TARVEX_GFS_CMD_RNTO, target, from); };
  expect_rows({{"/x", {}, "PATH_NOT_FOUND\nGridFTP-Path: \"/x\""}, {"/f", {}, "NOT_A_DIRECTORY\nGridFTP-Path: /x"}},
              rename);
  for (const char* const taken : {"/s", "/f", "/d"}) {
    target = taken;
    expect_rows({{"/f", {}, std::string("PATH_EXISTS\nGridFTP-Path: ") + taken}}, rename);
  }
  target = "/e/g";
  expect_rows({{"/f", {code(403)}, "PERMISSION_DENIED"},
               {"/f", {code(200)}, "System error in malloc: "},
               {"/f", {code(429), code(200, "[]")}, "Failed info_parse!"},
               {"/f", {code(200, item_json("file", "3", "g", "2"))}, ""}},
              rename);
  EXPECT_EQ(cached("/f"), nullptr);
  EXPECT_STREQ(cached("/e/g")->id, "3");
  target = "/e/d";
  expect_rows({{"/d", {code(200, item_json("folder", "1", "d", "2"))}, ""}}, rename);
  const Sent folder = box_script.sent.back();
  EXPECT_EQ(folder.line, std::string("PUT ") + API + "/folders/1" + FIELDS);
  EXPECT_THAT(folder.headers, ElementsAre("Authorization: Bearer T", "Content-Type: application/json;"));
  EXPECT_EQ(folder.body, R"({"name":"d","parent":{"id":"2"}})");
  box_script.sent.pop_back();
  EXPECT_EQ(box_script.sent.back().line, std::string("PUT ") + API + "/files/3" + FIELDS);
  EXPECT_EQ(box_script.sent.back().body, R"({"name":"g","parent":{"id":"2"}})");
}

TEST_F(CommandTest, RenamesWhatTheTargetsListingReplaces) {
  cached("/d")->listed = false;
  const Answer page = code(200, page_json({item_json("file", "7", "a", "1")}));
  box_script.expect({page});
  ASSERT_EQ(stat_path("/d/a", true), "");
  cached("/d")->listed = false;  // so the target's absence lists the folder, and the source's record goes
  box_script.expect({page, code(200, item_json("file", "7", "b", "1"))});
  EXPECT_EQ(command(TARVEX_GFS_CMD_RNTO, "/d/b", "/d/a"), "");
  EXPECT_THAT(box_script.sent.back().line, HasSubstr("/files/7?"));
  EXPECT_EQ(cached("/d/a"), nullptr);
}

TEST_F(CommandTest, KnowsDigests) {
  EXPECT_EQ(cksm("sha1", "/s"), SHA1_OF_ABC);
  EXPECT_EQ(cksm("ADLER32", "/s"), "(null)");
  EXPECT_EQ(cksm("MD5", "/s", 0, 0), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(cksm("SHA1", "/s", 5, 0), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_THAT(cksm("MD5", "/x"), HasSubstr("PATH_NOT_FOUND"));
  EXPECT_THAT(box_script.sent, IsEmpty());
  box_script.expect(
      {code(200, item_json("file", "4", "s", "0", R"(,"metadata":{"global":{"properties":{"tarvex-md5":"beef"}}})"))});
  EXPECT_EQ(cksm("Md5", "/s"), "beef");
  EXPECT_EQ(cksm("MD5", "/s"), "beef");
  EXPECT_THAT(box_script.take_lines(), SizeIs(1));
}

TEST_F(CommandTest, ComputesAndRecordsDigests) {
  box_script.expect({code(404), redirect_answer(), code(200, "abc"), code(201, "{}")});
  EXPECT_EQ(cksm("MD5", "/s"), MD5_OF_ABC);
  ASSERT_EQ(box_script.sent.size(), 4u);
  EXPECT_EQ(box_script.sent[1].line, std::string("GET ") + API + "/files/4/content");
  EXPECT_EQ(box_script.sent[2].line, "GET https://dl.box.com/f");
  EXPECT_THAT(box_script.sent[2].headers, ElementsAre("Authorization: Bearer T"));
  EXPECT_EQ(box_script.sent[3].line, std::string("POST ") + API + "/files/4/metadata/global/properties");
  EXPECT_THAT(box_script.sent[3].headers, ElementsAre("Authorization: Bearer T", "Content-Type: application/json"));
  EXPECT_EQ(box_script.sent[3].body, std::string(R"({"tarvex-md5":")") + MD5_OF_ABC + "\"}");
  EXPECT_EQ(cksm("MD5", "/s"), MD5_OF_ABC);
  EXPECT_EQ(box_script.sent.size(), 4u);
  EXPECT_TRUE(cached("/s")->has_metadata);
  // A range whose digest is not the file's is not recorded; a failed record does not fail the command.
  box_script.expect({redirect_answer(), code(206, "bc")});
  EXPECT_EQ(cksm("SHA1", "/s", 1), "5b2505039ac5af9e197f5dad04113906a9cf9a2a");
  EXPECT_THAT(box_script.sent.back().headers, ElementsAre("Authorization: Bearer T", "Range: bytes=1-"));
  free(std::exchange(cached("/s")->md5, nullptr));
  box_script.expect({redirect_answer(), code(200, "abc"), code(403)});
  EXPECT_EQ(cksm("MD5", "/s", 1), MD5_OF_ABC);
  const Sent& patch = box_script.sent.back();
  EXPECT_THAT(patch.line, testing::StartsWith("PUT "));
  EXPECT_THAT(patch.headers, ElementsAre("Authorization: Bearer T", "Content-Type: application/json-patch+json"));
  EXPECT_EQ(patch.body, std::string(R"([{"op":"add","path":"/tarvex-md5","value":")") + MD5_OF_ABC + "\"}]");
  EXPECT_STREQ(cached("/s")->md5, MD5_OF_ABC);
}

TEST_F(CommandTest, FailsChecksums) {
  const Answer found = redirect_answer();
  expect_rows({{"missing", {code(404)}, "PATH_NOT_FOUND"},
               {"no redirect", {code(200), code(200)}, "TOO_BUSY"},
               {"no address", {code(302)}, "Box named no download address"},
               {"plain http", {redirect_answer("http://dl.box.com/f")}, "Box named a download address that is not"},
               {"a file", {redirect_answer("file:///etc/passwd")}, "Box named a download address that is not"},
               {"cut twice", {found, cut, cut}, "transport 7001"},
               {"one retry for both", {cut, found, cut}, "transport 7001"},
               {"busy twice", {code(429), found, code(429)}, "TOO_BUSY"},
               {"refused", {found, code(403, "x")}, "PERMISSION_DENIED"}},
              [&](const char*) { return cksm("SHA1", "/f"); });
  // An explicit length is read again and again, until a request fails, on purpose.
  box_script.sent.clear();
  box_script.expect({redirect_answer(), code(200, "ab"), redirect_answer(), code(200, "ab"), code(403)});
  EXPECT_EQ(cksm("SHA1", "/s", 0, 2), "PERMISSION_DENIED");
  EXPECT_THAT(box_script.sent.back().headers, ElementsAre("Authorization: Bearer T", "Range: bytes=0-1"));
}

TEST_F(CommandTest, FeedsDigestsOnOrAfreshAfterACut) {
  const Answer half = {.body = "ab", .transport = Answer::may_be_retried};
  for (const auto& [restart, digest] : {std::pair{0, "609abcf987a6fb3611cd129416532d08c74fa3c1"}, {1, SHA1_OF_ABC}}) {
    tarvex_i_box_cksm_restart = restart;
    box_script.expect({redirect_answer(), half, code(200, "abc")});
    EXPECT_EQ(cksm("SHA1", "/f"), digest);
  }
  tarvex_i_box_cksm_restart = 0;
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

TEST_F(CommandTest, SendsRanges) {
  const Answer found = redirect_answer();
  const struct {
    std::deque<std::pair<tarvex_off_t, tarvex_off_t>> ranges;
    std::string targets, last_range;
    Row row;
  } rows[] = {
      {{{0, 0}}, "", "", {"nothing", {}, ""}},
      {{{0, -1}, {9, 9}}, " 0+-1", "", {"whole", {found, code(200)}, ""}},
      {{{100, -1}}, " 100+-1", "100-", {"tail", {found, code(206)}, ""}},
      {{{100, 50}, {200, 1}}, " 100+50 200+1", "200-200", {"two", {found, code(206), found, code(206)}, ""}},
      {{{5, 5}, {10, 5}}, " 5+5", "10-14", {"second refused", {found, code(206), code(403)}, "PERMISSION_DENIED"}},
      {{{0, -1}}, "", "", {"missing", {code(404)}, "PATH_NOT_FOUND"}},
      {{{0, -1}}, "", "", {"no address", {code(302)}, "Box named no download address"}},
      {{{0, -1}}, " 0+-1", "", {"odd status", {found, code(418)}, ""}},
      {{{0, -1}}, "", "", {"dead", {found, dead}, "transport 7002"}},
      {{{0, -1}}, " 0+-1", "", {"cut once", {found, cut, code(200)}, ""}},
      {{{0, -1}}, " 0+-1", "", {"one retry for both", {code(429), found, code(503, "", "4")}, "INTERNAL_ERROR"}},
  };
  for (const auto& [ranges, expected, last_range, row] : rows) {
    next().read_ranges = ranges;
    box_script.sent.clear();
    expect_rows({row}, [&](const char*) { return send("/f"); });
    EXPECT_EQ(framework.begun, 1);
    std::string targets;
    for (const Sent& sent : box_script.sent) targets += sent.target.empty() ? "" : " " + sent.target;
    EXPECT_EQ(targets, expected);
    EXPECT_TRUE(last_range.empty() || box_script.sent.back().headers.back() == "Range: bytes=" + last_range);
  }
  EXPECT_THAT(box_script.take_waits(), IsEmpty());  // the download itself is not delayed
  next();
  EXPECT_THAT(send("/x"), HasSubstr("PATH_NOT_FOUND"));
  EXPECT_EQ(framework.begun, 0);
}

}  // namespace
