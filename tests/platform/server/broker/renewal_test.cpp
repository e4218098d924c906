// Renewals against a local Box, cut short at every step.
#include "broker/renewal.h"

#include "broker/renewals.h"
#include "child_program.h"
#include "oauth/box_user.h"
#include "socket.h"
#include "temporary_folder.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <random>

namespace tarvex::server {
namespace {

using verdict = renewal_answer::verdict;
using namespace std::chrono_literals;

const char* const STEPS[] = {"before the note", "noted", "before asking", "answered", "before writing", "written"};

class Renewal : public ::testing::Test {
 protected:
  void start(const std::string& refresh) {
    box_ = std::make_unique<child_program>(
        std::vector<std::string>{EMULATOR_PROGRAM, "--data", folder_.path("box"), "--account", "alice:marker", "--set",
                                 "consent=at_once", "--set", "refresh=" + refresh, "--quiet"});
    const std::string line = box_->line();
    address_ = line.substr(line.rfind(' ') + 1);
    port_ = static_cast<std::uint16_t>(std::stoi(address_.substr(address_.rfind(':') + 1)));
    config_.box_token_url = "http://" + address_ + "/oauth2/token";
    config_.broker_directory = folder_.path("broker");
    config_.broker_key_file = folder_.write("key", std::string(32, 'k'));
    chmod(config_.broker_key_file.c_str(), 0600);
    config_.box_client_id = "app";
    config_.box_client_secret_file = folder_.write("secret", "hidden");
    chmod(config_.box_client_secret_file.c_str(), 0600);
    ASSERT_EQ(store_.open(config_), "");
    endpoint_ = configured_endpoint(config_);
  }

  /// What a person's consent brings.
  void sign_in() {
    const auto browser = loopback_socket::connect(port_);
    browser.write(
        "GET /api/oauth2/authorize?response_type=code&client_id=app&user=alice&state=s&redirect_uri="
        "http%3A%2F%2F127.0.0.1%2Fcallback HTTP/1.1\r\nHost: box\r\nConnection: close\r\n\r\n");
    const std::string answer = browser.read_all();
    const std::size_t at = answer.find("code=") + 5;
    const std::string code = answer.substr(at, answer.find_first_of("&\r", at) - at);
    oauth_app app;
    ASSERT_EQ(configured_app(config_, app), "");
    token_answer got =
        token_ask(endpoint_, app,
                  {{"grant_type", "authorization_code"}, {"code", code}, {"redirect_uri", "http://127.0.0.1/callback"}},
                  true, -1);
    ASSERT_EQ(got.how, token_answer::verdict::granted) << got.reason << answer;
    token_record record;
    record.generation = store_.read("alice").record ? store_.read("alice").record->generation + 1 : 1;
    record.current = {std::move(got.access_token), std::move(got.refresh_token), got.expires_at};
    record.box_user = "1";
    ASSERT_EQ(store_.write("alice", record), "");
  }

  renewal_answer renew(std::function<void(const char*)> at_step = {}) {
    const renewal_setup setup{.store = store_,
                              .endpoint = endpoint_,
                              .app = [this](oauth_app& out) { return configured_app(config_, out); },
                              .patience = 400ms,
                              .first_pause = 20ms,
                              .at_step = std::move(at_step)};
    return renew_account(setup, "alice", 100s, store_.read("alice").record->generation);
  }

  /// Renews in a process that is killed at a step, or at a random moment where there is none.
  void renew_and_die(const char* step) {
    static std::minstd_rand random(1);
    const pid_t child = fork();
    if (child == 0) {
      (void)renew([step](const char* at) {
        if (step != nullptr && std::string_view(step) == at) raise(SIGKILL);
      });
      _exit(0);
    }
    if (step == nullptr) {
      usleep(static_cast<useconds_t>(random() % 12000));
      kill(child, SIGKILL);
    }
    waitpid(child, nullptr, 0);
  }

  bool token_serves(const token_record& record) const {
    return box_user_ask({}, "http://" + address_, record.current.access.text()).error.empty();
  }

  /// \return how often the account was lost; after each loss it is signed in anew.
  int kill_often(int times) {
    int lost = 0;
    for (int i = 0; i < times; ++i) {
      const char* const step = i % 10 < 6 ? STEPS[i % 10] : nullptr;
      renew_and_die(step);
      const renewal_answer after = renew();
      if (after.how == verdict::good) {
        EXPECT_TRUE(token_serves(*after.record));
        continue;
      }
      EXPECT_EQ(after.how, verdict::sign_in_needed) << after.reason;
      // Unavoidable is what is lost between Box's answer and the disk.
      const bool after_asking = step == nullptr || step == STEPS[3] || step == STEPS[4];
      EXPECT_TRUE(after_asking) << step;
      ++lost;
      sign_in();
    }
    return lost;
  }

  temporary_folder folder_;
  std::unique_ptr<child_program> box_;
  std::string address_;
  std::uint16_t port_ = 0;
  configuration config_;
  token_store store_;
  token_endpoint endpoint_;
};

TEST_F(Renewal, NoKillAtAnyStepLosesAnAccountWhereBoxGivesTheSamePairAgain) {
  start("grace");
  sign_in();
  EXPECT_EQ(kill_often(600), 0);
}

TEST_F(Renewal, WhereBoxSpendsTokensAtOnceOnlyWhatIsBetweenItsAnswerAndTheDiskIsLost) {
  start("strict");
  sign_in();
  const int lost = kill_often(400);
  RecordProperty("lost", lost);
  EXPECT_GE(lost, 80);  // two steps in ten are in that window
}

TEST_F(Renewal, AFullDiskStopsItBeforeBoxIsAskedAndNothingIsLost) {
  start("strict");
  sign_in();
  const std::uint64_t before = store_.read("alice").record->generation;
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit none = {4096, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
  const renewal_answer full = renew();
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  EXPECT_EQ(full.how, verdict::unavailable);
  EXPECT_NE(full.reason.find("store cannot be written"), std::string::npos) << full.reason;
  const renewal_answer after = renew();
  ASSERT_EQ(after.how, verdict::good) << after.reason;
  EXPECT_EQ(after.record->generation, before + 1);
}

TEST_F(Renewal, WhatComesOfBoxsAnswers) {
  start("grace");
  sign_in();
  const auto fault = [this](const std::string& row) {
    const auto control = loopback_socket::connect(port_);
    const std::string body = "[{\"path\": \"/oauth2/token\", " + row + "}]";
    control.write("POST /_emulator/faults HTTP/1.1\r\nHost: box\r\nConnection: close\r\nContent-Length: " +
                  std::to_string(body.size()) + "\r\n\r\n" + body);
    EXPECT_EQ(control.read_all().find("HTTP/1.1 2"), 0U) << row;
  };
  const std::string megabyte(1 << 20, 'x');
  const struct {
    const char* what;
    std::string fault;
    verdict how;
    unsigned generations;  ///< more than before
  } rows[] = {
      {"a busy Box", R"("status": 429, "headers": {"Retry-After": "0"})", verdict::good, 1},
      {"a failing Box", R"("status": 502, "html": "<h1>Bad gateway</h1>")", verdict::good, 1},
      {"an answer that gets lost", R"("store": true, "cut_before_answer": true)", verdict::good, 1},
      {"an answer cut in the middle", R"("store": true, "cut_answer_after": 40)", verdict::good, 1},
      {"an answer that is no answer", R"("status": 200, "text": "ok")", verdict::good, 1},
      {"a megabyte", R"("status": 200, "text": ")" + megabyte + "\"", verdict::good, 1},
      {"a Box that fails for long", R"("status": 503, "times": 0)", verdict::unavailable, 0},
      {"an app that nobody knows", R"("status": 400, "body": {"error": "invalid_client"})", verdict::refused, 0},
      {"a void grant", R"("status": 400, "body": {"error": "invalid_grant"})", verdict::sign_in_needed, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const std::uint64_t before = store_.read("alice").record->generation;
    fault(row.fault);
    const renewal_answer answer = renew();
    EXPECT_EQ(answer.how, row.how) << answer.reason;
    EXPECT_EQ(store_.read("alice").record->generation, before + row.generations);
    EXPECT_TRUE(!answer.record || token_serves(*answer.record));
    EXPECT_EQ(answer.reason.find(megabyte.substr(0, 400)), std::string::npos);
    const auto control = loopback_socket::connect(port_);
    control.write("DELETE /_emulator/faults HTTP/1.1\r\nHost: box\r\nConnection: close\r\n\r\n");
    (void)control.read_all();
  }
}

}  // namespace
}  // namespace tarvex::server
