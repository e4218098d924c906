// Scripted faults: each does what it says, to the requests it names, and is known to have been used.
#include "box_process.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <thread>

namespace emulator_test {
namespace {

class Faults : public testing::Test {
 protected:
  [[nodiscard]] reply me() const { return box_.send("GET /2.0/users/me"); }
  [[nodiscard]] reply make(const std::string& name) const { return box_.send("POST /2.0/folders", named(name)); }
  [[nodiscard]] std::string count() const { return box_.send("GET /2.0/folders/0/items").at("total_count"); }

  box_process box_;
};

TEST_F(Faults, AnswerInPlaceOfBox) {
  struct row {
    const char* fault;
    int status;
    const char* body;  // how it begins
    const char* header;
    const char* value;
  };
  for (const row& each :
       {row{R"({"status":429,"headers":{"Retry-After":"2"}})", 429, "", "Retry-After", "2"},
        row{R"({"status":502,"html":"<html>Bad"})", 502, "<html>Bad", "Content-Type", "text/html"},
        row{R"({"status":200,"body":{"a":[1]}})", 200, R"({"a":[1]})", "Content-Type", "application/json"},
        row{R"({"status":200,"text":"{\"cut"})", 200, "{\"cut", "Content-Type", "text/plain"},
        row{R"({"code":"unavailable","headers":{"Retry-After":30}})", 503, R"({"type":"error","status":503,)",
            "Retry-After", "30"},
        row{R"({"code":"rate_limit_exceeded","empty":true})", 429, "", "Content-Type", ""},
        row{R"({"status":401,"empty":true,"headers":{"WWW-Authenticate":"Bearer"}})", 401, "", "WWW-Authenticate",
            "Bearer"}}) {
    box_.add_fault(each.fault);
    const reply answer = me();
    EXPECT_EQ(answer.status, each.status) << each.fault;
    EXPECT_TRUE(answer.body.starts_with(each.body)) << answer.body;
    EXPECT_EQ(answer.header(each.header), each.value) << each.fault;
    EXPECT_TRUE(box_.all_faults_used()) << each.fault;
    EXPECT_EQ(me().status, 200) << "once only: " << each.fault;
  }
}

TEST_F(Faults, ChooseTheirRequests) {
  box_.add_fault(R"([{"method":"POST","path":"/2.0/folders","nth":2,"times":2,"status":500},
                     {"path":"/2.0/folders/*","query":"fields=id","status":502,"times":0},
                     {"path":"/2.0/users/**","status":503,"for_ms":0},
                     {"path":"/2.0/users/**","status":504,"probability":0}])");
  for (const int status : {201, 500, 500, 201}) EXPECT_EQ(make("n" + std::to_string(rand())).status, status);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(box_.send("GET /2.0/folders/0?fields=id").status, 502);
  (void)box_.check({{"other query", "GET /2.0/folders/0", "", 200},
                    {"* does not cross a slash", "GET /2.0/folders/0/items?fields=id", "", 200},
                    {"none is due", "GET /2.0/users/me", "", 200},
                    {"counted", "GET /_emulator/faults", "", 200, "0.matched=4|0.used=2|3.used=0"}});
  EXPECT_FALSE(box_.all_faults_used());
  (void)box_.check(
      {{"clear", "DELETE /_emulator/faults", "", 204}, {"cleared", "GET /2.0/folders/0?fields=id", "", 200}});
}

TEST_F(Faults, StoreAndThenFail) {
  struct row {
    const char* fault;
    int status;
    const char* count;
  };
  int made = 0;
  for (const row& each : {row{R"({"method":"POST","status":500,"store":true})", 500, "1"},
                          row{R"({"method":"POST","cut_before_answer":true,"store":true})", 0, "2"},
                          row{R"({"method":"POST","cut_before_answer":true})", 0, "2"}}) {
    box_.add_fault(each.fault);
    EXPECT_EQ(make("n" + std::to_string(++made)).status, each.status) << each.fault;
    EXPECT_EQ(count(), each.count) << each.fault;
  }
}

TEST_F(Faults, CutWhereTheySay) {
  const std::string id = box_.file("0", "f", sample(5000));
  box_.add_fault(R"({"path":"/d/1/*/download","cut_answer_after":1234})");
  const reply cut = box_.fetch(id);
  EXPECT_EQ(cut.status, 200);
  EXPECT_FALSE(cut.complete);
  EXPECT_TRUE(cut.body == sample(5000).substr(0, 1234)) << cut.body.size();
  box_.add_fault(R"({"path":"/api/2.0/files/content","cut_request_after":1000})");
  EXPECT_EQ(box_.upload(named("g"), sample(5000)).status, 0);
  EXPECT_EQ(count(), "1");
  EXPECT_TRUE(box_.all_faults_used());
}

TEST_F(Faults, TakeTheirTime) {
  using clock = std::chrono::steady_clock;
  const std::string id = box_.file("0", "f", sample(5000));
  for (const char* fault : {R"({"path":"/d/1/*/download","delay_ms":80})",
                            R"({"path":"/d/1/*/download","piece_bytes":1000,"piece_delay_ms":20})"}) {
    box_.add_fault(fault);
    const auto start = clock::now();
    EXPECT_TRUE(box_.fetch(id).body == sample(5000));
    EXPECT_GE(clock::now() - start, std::chrono::milliseconds(80)) << fault;
  }
  box_.add_fault(R"({"path":"/2.0/users/me","hang":true})");
  raw_connection waiting(box_.port());
  ASSERT_TRUE(waiting.send(box_.text("GET /2.0/users/me")));
  while (!box_.all_faults_used()) std::this_thread::yield();
  EXPECT_EQ(me().status, 200) << "a request that hangs holds up nobody, not even the end of the program";
}

TEST_F(Faults, ChangeSettingsForOneRequest) {
  (void)make("taken");
  box_.add_fault(R"({"method":"POST","settings":{"conflict_on_create":"object"}})");
  make("taken").expect("context_info.conflicts.name=taken");
  make("taken").expect("context_info.conflicts.0.name=taken");
}

TEST_F(Faults, ComeFromAFileAndAreChecked) {
  const temporary_directory directory;
  const std::string file = directory.path() / "faults.json";
  std::ofstream(file) << R"([{"path":"/2.0/users/me","status":503}])";
  const box_process box({"--faults", file});
  EXPECT_EQ(box.send("GET /2.0/users/me").status, 503);
  for (const char* bad : {"7", R"({"statsu":500})", R"({"settings":{"x":1}})", "[{}"}) {
    EXPECT_EQ(box_.send("POST /_emulator/faults", bad).status, 400) << bad;
  }
}

}  // namespace
}  // namespace emulator_test
