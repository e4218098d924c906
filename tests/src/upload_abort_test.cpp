#include "upload_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string ABORT = std::string("DELETE ") + UPLOAD + "/upload_sessions/S";
const std::string OPEN = std::string("POST ") + UPLOAD + "/upload_sessions";

class UploadAbortTest : public UploadTest {
 protected:
  const Answer single = session_answer(R"({"id":"S","part_size":10,"total_parts":1})");

  /// A store in one part, and what Box answers to the part and to the commits.
  std::string store(std::initializer_list<Answer> answers) {
    next();
    client_sends();
    box_script.expect({single});
    box_script.expect(answers);
    const std::string error = recv("/n", 10);
    EXPECT_THAT(box_script.answers, IsEmpty());
    box_script.answers.clear();
    box_script.sent.clear();
    return error;
  }
  /// Ends the login. \return what Box was asked then; it has no good answer to that.
  std::vector<std::string> ends() {
    box_script.expect({code(404), code(404)});
    tarvex_i_box_destroy(std::exchange(session, nullptr));
    box_script.answers.clear();
    return box_script.take_lines();
  }
  void begins_anew() {
    if (session != nullptr) ends();
    next();
    login();
  }
};

struct Situation {
  const char* what;
  std::vector<Answer> answers;  ///< to the part and to the commits
  bool open, refused;           ///< what is at Box then, if anything is for sure
};

const std::vector<Situation> SITUATIONS = {
    {"a part was refused", {code(403)}, true, false},
    {"the commit was refused", {code(200, R"({"part":{}})"), code(403)}, false, true},
    {"the commit was refused with a busy Box", {code(200, R"({"part":{}})"), code(429), code(400)}, false, true},
    {"the commit's answer was lost", {code(200, R"({"part":{}})"), cut, code(409)}, false, false},
    {"the commit met a fault", {code(200, R"({"part":{}})"), code(500)}, false, false},
    {"the commit timed out at Box", {code(200, R"({"part":{}})"), code(408)}, false, false},
    {"the commit is under way", {code(200, R"({"part":{}})"), code(202), code(409)}, false, false},
};

TEST_F(UploadAbortTest, EndsWithTheLoginWhatNobodyCanContinue) {
  for (const auto& [sessions, uploads] : {std::pair{0, 0}, {0, 1}, {1, 0}, {1, 1}}) {
    const SettingScope sessions_scope(tarvex_i_box_abort_sessions, sessions);
    const SettingScope uploads_scope(tarvex_i_box_abort_uploads, uploads);
    for (const Situation& row : SITUATIONS) {
      SCOPED_TRACE(row.what + std::to_string(sessions) + std::to_string(uploads));
      begins_anew();
      next();
      client_sends();
      box_script.expect({single});
      box_script.answers.insert(box_script.answers.end(), row.answers.begin(), row.answers.end());
      EXPECT_NE(recv("/n", 10), "");
      EXPECT_THAT(box_script.answers, IsEmpty());
      box_script.sent.clear();
      const bool deleted = (row.open && (sessions == 1 || uploads == 1)) || (row.refused && sessions == 1);
      EXPECT_EQ(ends(), deleted ? std::vector{ABORT} : std::vector<std::string>{});
    }
  }
}

TEST_F(UploadAbortTest, GivesWayToAStoreFromTheStart) {
  const SettingScope scope(tarvex_i_box_abort_sessions, 1);
  for (const Situation& row : SITUATIONS) {
    for (const bool small : {false, true}) {
      SCOPED_TRACE(std::string(row.what) + (small ? ", then small" : ""));
      begins_anew();
      next();
      client_sends();
      box_script.expect({single});
      box_script.answers.insert(box_script.answers.end(), row.answers.begin(), row.answers.end());
      EXPECT_NE(recv("/n", 10), "");
      box_script.sent.clear();
      std::vector<std::string> asked;
      if (row.open || row.refused) {
        box_script.expect({code(404)});  // is no hindrance
        asked.push_back(ABORT);
      }
      next();
      asked.push_back(small ? std::string("POST ") + UPLOAD + "/content" + FIELDS : OPEN);
      box_script.expect({code(403)});
      EXPECT_EQ(recv("/n", small ? 1 : 10), "PERMISSION_DENIED");
      EXPECT_EQ(box_script.take_lines(), asked);
      EXPECT_EQ(tarvex_box_upload_state_query(&session->upload_state, "/n"), nullptr);
      EXPECT_THAT(ends(), IsEmpty());
    }
  }
}

TEST_F(UploadAbortTest, LeavesWhatIsContinuedOrFinished) {
  const SettingScope scope(tarvex_i_box_abort_sessions, 1);
  EXPECT_EQ(store({code(403)}), "PERMISSION_DENIED");
  next();
  framework.write_range = {0, -1};
  client_sends();
  box_script.expect({part_answer(1), code(500)});
  EXPECT_EQ(recv("/n", 10, false), "INTERNAL_ERROR");
  EXPECT_EQ(box_script.take_lines().front(), std::string("PUT ") + UPLOAD + "/upload_sessions/S");
  EXPECT_EQ(store({part_answer(1), stored_answer(), code(201)}), "");
  EXPECT_THAT(ends(), IsEmpty());
}

}  // namespace
