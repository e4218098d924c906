#include "version_fixture.h"

using testing::ElementsAre;
using testing::StartsWith;

namespace {

constexpr char SHA1_OF_DIGITS[] = "87acec17cd9dcd20a716cc2cf67417b71c8a7016";
constexpr char MD5_OF_DIGITS[] = "781e5e245d69b566979b86e28d23f2c7";
constexpr char OTHER_SHA1[] = "0000000000000000000000000000000000000000";

const std::string SESSIONS = std::string("POST ") + UPLOAD + "/3/upload_sessions";
const std::string NEW_SESSIONS = std::string("POST ") + UPLOAD + "/upload_sessions";
const std::string PART = std::string("PUT ") + UPLOAD + "/upload_sessions/S";
const std::string COMMIT = std::string("POST ") + UPLOAD + "/upload_sessions/S/commit" + FIELDS;
const std::string LOOK = std::string("GET ") + API_FILES + "3/" + FIELDS + ",metadata.global.properties";
const std::string CREATE = std::string("POST ") + API_FILES + "3/metadata/global/properties";

class VersionChunkedTest : public VersionTest {
 protected:
  const Answer single = session_answer(R"({"id":"S","part_size":10,"total_parts":1})");
  const Answer part = part_answer(1);

  std::string store_parts() { return store("0123456789"); }
};

TEST_F(VersionChunkedTest, GivesAFileANewVersion) {
  box_script.expect({single, part, code(202), version_answer("5"), code(201)});
  EXPECT_EQ(store_parts(), "");
  const auto& sent = box_script.sent;
  EXPECT_EQ(sent[0].body, R"({"file_size":10,"file_name":"f"})");
  EXPECT_EQ(header_of(sent[0], "If-Match"), "none");
  for (const size_t commit : {2, 3}) EXPECT_EQ(header_of(sent[commit], "If-Match"), "4");
  EXPECT_EQ(sent[4].body, std::string(R"({"tarvex-md5":")") + MD5_OF_DIGITS + "\"}");
  EXPECT_THAT(box_script.take_lines(), ElementsAre(SESSIONS, PART, COMMIT, COMMIT, CREATE));
  EXPECT_STREQ(cached("/f")->md5, MD5_OF_DIGITS);
  EXPECT_EQ(cached("/f")->next_etag, 6u);
  EXPECT_EQ(tarvex_box_upload_state_query(&session->upload_state, "/f"), nullptr);
}

TEST_F(VersionChunkedTest, SettlesWhatTheCommitLeavesOpen) {
  const Answer ours = look_answer("5", SHA1_OF_DIGITS), theirs = look_answer("5", OTHER_SHA1), md5 = code(201);
  const Answer expired = code(410, R"({"code":"session_expired"})");
  const struct {
    Row row;
    std::vector<std::string> lines;  ///< from the commit on
    bool refused;                    ///< so that the session may be deleted
  } rows[] = {
      {{"lost", {cut, expired, ours, md5}, ""}, {COMMIT, COMMIT, LOOK, CREATE}, false},
      {{"lost, then its effect is met", {cut, changed_answer(), ours, md5}, ""}, {COMMIT, COMMIT, LOOK, CREATE}, false},
      {{"lost, and others were first", {cut, changed_answer(), theirs}, CHANGED}, {COMMIT, COMMIT, LOOK}, false},
      {{"lost, nothing done", {cut, expired, look_answer("4", OTHER_SHA1)}, "code: \"session_expired\""},
       {COMMIT, COMMIT, LOOK},
       false},
      {{"a fault", {code(500), ours, md5}, ""}, {COMMIT, LOOK, CREATE}, false},
      {{"changed", {changed_answer()}, CHANGED}, {COMMIT}, true},
      {{"changed, without a word", {code(412)}, CHANGED}, {COMMIT}, true},
      {{"vanished", {code(404)}, "PATH_NOT_FOUND"}, {COMMIT}, true},
      {{"stored, its MD5 not", {version_answer("5"), code(403)}, "PERMISSION_DENIED"}, {COMMIT, CREATE}, false},
  };
  const SettingScope scope(tarvex_i_box_abort_sessions, 1);
  for (const auto& [row, lines, refused] : rows) {
    begins_with({file("4")});
    box_script.expect({});
    std::vector<Answer> answers = {single, part};
    answers.insert(answers.end(), row.answers.begin(), row.answers.end());
    expect_rows({{row.what, answers, row.error}}, [&](const char*) { return store_parts(); });
    auto sent = box_script.take_lines();
    sent.erase(sent.begin(), sent.begin() + 2);
    EXPECT_EQ(sent, lines) << row.what;
    if (refused) box_script.expect({code(204)});  // to the session's deletion at the end of the login
    tarvex_i_box_destroy(std::exchange(session, nullptr));
    EXPECT_EQ(box_script.take_lines().size(), refused ? 1u : 0u) << row.what;
  }
}

TEST_F(VersionChunkedTest, ATryAfterAChangeReplacesIt) {
  const SettingScope scope(tarvex_i_box_abort_sessions, 1);
  box_script.expect({single, part, changed_answer()});
  EXPECT_THAT(store_parts(), StartsWith(CHANGED));
  EXPECT_EQ(framework.reply_code, 553);
  box_script.sent.clear();
  box_script.expect({look_answer("5", OTHER_SHA1), code(204), single, part, version_answer("6"), code(201)});
  EXPECT_EQ(store_parts(), "");
  EXPECT_EQ(header_of(box_script.sent[4], "If-Match"), "5");
  EXPECT_THAT(box_script.take_lines(), ElementsAre(LOOK, "DELETE" + PART.substr(3), SESSIONS, PART, COMMIT, CREATE));
}

TEST_F(VersionChunkedTest, StoresAnewWhatHasVanished) {
  box_script.expect({code(404), single, part, stored_answer("f"), code(201)});
  EXPECT_EQ(store_parts(), "");
  EXPECT_EQ(box_script.sent[1].body, R"({"folder_id":"0","file_size":10,"file_name":"f"})");
  EXPECT_EQ(header_of(box_script.sent[3], "If-Match"), "none");
  EXPECT_EQ(box_script.sent[1].line, NEW_SESSIONS);
  EXPECT_STREQ(cached("/f")->id, "77");
}

TEST_F(VersionChunkedTest, ContinuesInTheBeliefThatItBeganWith) {
  box_script.expect({single, code(403)});
  EXPECT_EQ(store_parts(), "PERMISSION_DENIED");
  // The folder was listed since, and shows a change that the sender of the first bytes did not see.
  box_script.expect({code(200, page_json({file("9")}))});
  EXPECT_EQ(stat_path("/", false), "");
  box_script.sent.clear();
  next().blocks = {{"0123456789", true}};
  box_script.expect({part, changed_answer()});
  EXPECT_THAT(recv("/f", 10, false), StartsWith(CHANGED));
  EXPECT_EQ(header_of(box_script.sent.back(), "If-Match"), "4");
  EXPECT_THAT(box_script.take_lines(), ElementsAre(PART, COMMIT));
}

}  // namespace
