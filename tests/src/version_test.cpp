#include "version_fixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr char SHA1_OF_ABC[] = "a9993e364706816aba3e25717850c26c9cd0d89d";
constexpr char MD5_OF_ABC[] = "900150983cd24fb0d6963f7d28e17f72";
constexpr char OTHER_SHA1[] = "0000000000000000000000000000000000000000";

const std::string VERSION = std::string("POST ") + UPLOAD + "/3/content" + FIELDS;
const std::string ANEW = std::string("POST ") + UPLOAD + "/content" + FIELDS;
const std::string LOOK = std::string("GET ") + API_FILES + "3/" + FIELDS + ",metadata.global.properties";
const std::string CREATE = std::string("POST ") + API_FILES + "3/metadata/global/properties";
const std::string UPDATE = std::string("PUT ") + API_FILES + "3/metadata/global/properties";

TEST_F(VersionTest, GivesAFileANewVersion) {
  next().modification_time = 1577934245;
  framework.blocks = {{"ab"}, {"c", true}};
  box_script.expect({version_answer("5"), code(201)});
  EXPECT_EQ(recv("/f", 3), "");
  EXPECT_EQ(framework.begun, 1);
  EXPECT_EQ(framework.received, 3);
  const Sent form = box_script.sent[0];
  EXPECT_EQ(header_of(form, "If-Match"), "4");
  EXPECT_EQ(form.body,
            "Content-Disposition: form-data; name=\"attributes\"\n"
            R"({"name":"f","content_modified_at":"2020-01-02T03:04:05Z"})"
            "\nContent-Disposition: form-data; name=\"file\"; filename=\"f\"\n"
            "Content-Type: application/octet-stream\nabc\n");
  EXPECT_EQ(box_script.sent[1].body, std::string(R"({"tarvex-md5":")") + MD5_OF_ABC + "\"}");
  EXPECT_THAT(box_script.take_lines(), ElementsAre(VERSION, CREATE));
  EXPECT_STREQ(cached("/f")->md5, MD5_OF_ABC);
  // What was learnt of the file serves the next version; nothing is asked between the two.
  box_script.expect({version_answer("6"), code(200)});
  EXPECT_EQ(store(""), "");
  EXPECT_EQ(header_of(box_script.sent[0], "If-Match"), "5");
  EXPECT_THAT(box_script.take_lines(), ElementsAre(VERSION, UPDATE));
  // Folders do not give way, new files come as ever, and a file that is too large changes nothing.
  begins_with({file("4"), item_json("folder", "5", "d")});
  EXPECT_THAT(store("abc", "/d"), StartsWith("Path is a folder."));
  box_script.expect({stored_answer()});
  EXPECT_EQ(store("abc", "/n"), "");
  EXPECT_THAT(recv("/f", 200000001), StartsWith("QUOTA_EXCEEDED"));
  EXPECT_THAT(box_script.take_lines(), ElementsAre(ANEW));
}

TEST_F(VersionTest, SendsNoConditionWithoutAnEtagOfBoxs) {
  for (const char* const etag : {"", "04", "4a", "-1", "4294967295", "99999999999"}) {
    SCOPED_TRACE(etag);
    begins_with({file(etag)});
    box_script.expect({code(200, file(etag)), version_answer("5"), code(201)});
    EXPECT_EQ(store("abc"), "");
    EXPECT_THAT(box_script.sent[0].line, StartsWith("GET "));
    EXPECT_EQ(header_of(box_script.sent[1], "If-Match"), "none");
    box_script.sent.clear();
  }
  begins_with({file("0")});
  box_script.expect({version_answer("1"), code(201)});
  EXPECT_EQ(store("abc"), "");
  EXPECT_EQ(header_of(box_script.sent[0], "If-Match"), "0");
}

TEST_F(VersionTest, RenewsTheMd5WhateverWasKnownOfIt) {
  const std::string metadata = R"(,"metadata":{"global":{"properties":{"tarvex-md5":"old"}}})";
  const struct {
    const char* what;
    std::string item;
    std::vector<Answer> answers;
    std::vector<std::string> lines;
    const char* error;
  } rows[] = {
      {"none", file("4"), {code(201)}, {CREATE}, ""},
      {"one unseen", file("4"), {code(409, R"({"code":"conflict"})"), code(200)}, {CREATE, UPDATE}, ""},
      {"one seen", file("4", metadata), {code(200)}, {UPDATE}, ""},
      {"one gone",
       file("4", metadata),
       {code(404, R"({"code":"instance_not_found"})"), code(201)},
       {UPDATE, CREATE},
       ""},
      {"refused", file("4"), {code(403)}, {CREATE}, "PERMISSION_DENIED"},
      {"refused both ways", file("4"), {code(409), code(404)}, {CREATE, UPDATE}, "PATH_NOT_FOUND"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    begins_with({row.item});
    box_script.expect({version_answer("5")});
    box_script.answers.insert(box_script.answers.end(), row.answers.begin(), row.answers.end());
    EXPECT_EQ(store("abc"), row.error);
    auto lines = box_script.take_lines();
    lines.erase(lines.begin());
    EXPECT_EQ(lines, row.lines);
    EXPECT_STREQ(cached("/f")->md5, MD5_OF_ABC);  // never the old content's
  }
}

TEST_F(VersionTest, SettlesWhatAnswersLeaveOpen) {
  const Answer ours = look_answer("5", SHA1_OF_ABC), md5 = code(201);
  const struct {
    Row row;
    std::vector<std::string> lines;
  } rows[] = {
      {{"refused", {code(403)}, "PERMISSION_DENIED"}, {VERSION}},
      {{"busy once", {code(429), version_answer("5"), md5}, ""}, {VERSION, VERSION, CREATE}},
      {{"lost once", {cut, version_answer("5"), md5}, ""}, {VERSION, VERSION, CREATE}},
      {{"lost, and carried out", {cut, changed_answer(), ours, md5}, ""}, {VERSION, VERSION, LOOK, CREATE}},
      {{"lost, and changed", {cut, changed_answer(), look_answer("5", OTHER_SHA1)}, CHANGED}, {VERSION, VERSION, LOOK}},
      {{"lost, and not carried out", {cut, cut, look_answer("4", OTHER_SHA1)}, "transport 7001"},
       {VERSION, VERSION, LOOK}},
      {{"lost, the same as before", {cut, cut, look_answer("4", SHA1_OF_ABC)}, "transport 7001"},
       {VERSION, VERSION, LOOK}},
      {{"lost, and not to be seen", {dead, dead}, "transport 7002"}, {VERSION, LOOK}},
      {{"a fault", {code(500), ours, md5}, ""}, {VERSION, LOOK, CREATE}},
      {{"timed out at Box", {code(408), ours, md5}, ""}, {VERSION, LOOK, CREATE}},
      {{"no answer's body", {code(200), ours, md5}, ""}, {VERSION, LOOK, CREATE}},
      {{"no entries", {code(200, "{}"), look_answer("4", OTHER_SHA1)}, "No metadata response"}, {VERSION, LOOK}},
      {{"odd entries", {code(200, R"({"entries":[{}]})"), ours, md5}, ""}, {VERSION, LOOK, CREATE}},
      {{"vanished, the look says", {cut, code(404), code(404)}, "PATH_NOT_FOUND"}, {VERSION, VERSION, LOOK}},
      {{"another 412", {code(412, R"({"code":"bad_digest"})")}, "INCORRECT_CHECKSUM"}, {VERSION}},
  };
  for (const auto& [row, lines] : rows) {
    begins_with({file("4")});
    expect_rows({row}, [&](const char*) { return store("abc"); });
    EXPECT_EQ(box_script.take_lines(), lines) << row.what;
    EXPECT_STREQ(cached("/f")->md5, row.error.empty() ? MD5_OF_ABC : nullptr);
  }
}

TEST_F(VersionTest, StoresAnewWhatHasVanished) {
  for (const char* const answer : {"", R"({"code":"not_found"})", R"({"code":"trashed"})"}) {
    begins_with({file("4")});
    box_script.expect({code(404, answer), stored_answer("f")});
    EXPECT_EQ(store("abc"), "");
    const Sent& sent = box_script.sent[1];
    EXPECT_EQ(header_of(sent, "If-Match"), "none");
    EXPECT_THAT(sent.body, HasSubstr(R"({"name":"f","parent":{"id":"0"}})"));
    EXPECT_THAT(sent.body, HasSubstr("octet-stream\nabc\n"));
    EXPECT_THAT(box_script.take_lines(), ElementsAre(VERSION, ANEW));
    EXPECT_STREQ(cached("/f")->id, "77");
  }
  begins_with({file("4")});
  box_script.expect({code(404), cut});  // what was stored anew is not sent twice
  EXPECT_EQ(store("abc"), "transport 7001");
  EXPECT_EQ(cached("/f"), nullptr);
}

TEST_F(VersionTest, OfTwoSessionsOneWins) {
  tarvex_box_session_t* const first = session;
  next();
  tarvex_box_session_t* const second = login({file("4")});
  session = first;
  box_script.expect({version_answer("5"), code(201)});
  EXPECT_EQ(store("abc"), "");
  session = second;
  for (const char* const body : {R"({"code":"precondition_failed"})", ""}) {
    box_script.sent.clear();
    box_script.expect({code(412, body)});
    EXPECT_THAT(store("xyz"), StartsWith(CHANGED));
    EXPECT_EQ(framework.reply_code, 553);
    EXPECT_THAT(box_script.take_lines(), ElementsAre(VERSION));
    cached("/f")->next_etag = body[0] != '\0' ? 5 : 0;
  }
  // The second try replaces what the other session stored, if it still is that.
  box_script.expect({look_answer("5", SHA1_OF_ABC), version_answer("6"), code(200)});
  EXPECT_EQ(store("xyz"), "");
  EXPECT_EQ(header_of(box_script.sent[1], "If-Match"), "5");
  EXPECT_THAT(box_script.take_lines(), ElementsAre(LOOK, VERSION, CREATE));
  tarvex_i_box_destroy(std::exchange(session, first));
}

TEST_F(VersionTest, LooksBeforeTheTryAfterAChange) {
  const Answer root = code(200, page_json({}));
  const struct {
    Row row;
    std::vector<std::string> lines;  ///< of the second try, listings left out
  } rows[] = {
      {{"gone", {code(404), stored_answer("f")}, ""}, {LOOK, ANEW}},
      {{"renamed", {code(200, file("6", "", "g")), stored_answer("f")}, ""}, {LOOK, ANEW}},
      {{"moved", {code(200, file("6", "", "f", "9")), stored_answer("f")}, ""}, {LOOK, ANEW}},
      {{"not to be seen", {code(403)}, "PERMISSION_DENIED"}, {LOOK}},
  };
  for (const auto& [row, lines] : rows) {
    begins_with({file("4")});
    box_script.expect({changed_answer()});
    EXPECT_THAT(store("abc"), StartsWith(CHANGED));
    box_script.sent.clear();
    expect_rows({row}, [&](const char*) { return store("abc"); });
    EXPECT_EQ(box_script.take_lines(), lines) << row.what;
  }
}

TEST_F(VersionTest, NeedsTheWholeContentFirst) {
  next().blocks = {{"ab"}, {"", false, true}};
  EXPECT_EQ(recv("/f", 3), "cable pulled");
  next().register_fails = true;
  EXPECT_EQ(recv("/f", 3), "Operation failed.");
  next().write_range = {0, 4};
  framework.blocks = {{"abc", true}};
  EXPECT_EQ(recv("/f", 3), "The client sent 3 bytes in the place of 4.");
  next().modification_time_fails = true;
  EXPECT_EQ(recv("/f", 3), "no time");
  // Of unknown length it may be as long as what goes up in one piece.
  const std::string megabyte(1 << 20, 'x');
  next().blocks = {{megabyte}, {"", true}};
  EXPECT_THAT(recv("/f", 0), StartsWith("SIZE_NOT_ANNOUNCED"));
  EXPECT_THAT(box_script.sent, IsEmpty());
  const SettingScope scope(tarvex_i_box_chunked_minimum, 2 << 20);
  next().blocks = {{megabyte}, {megabyte}, {"", true}};
  box_script.expect({version_answer("5"), code(201)});
  EXPECT_EQ(recv("/f", 0), "");
  EXPECT_THAT(box_script.sent[0].body, HasSubstr(megabyte + megabyte + "\n"));
}

}  // namespace
