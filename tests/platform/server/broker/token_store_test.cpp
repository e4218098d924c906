#include "broker/token_store.h"

#include "broker/record_name.h"
#include "temporary_folder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

namespace tarvex::server {
namespace {

class TokenStore : public ::testing::Test {
 protected:
  TokenStore() {
    config_.broker_directory = folder_.path("broker");
    config_.broker_key_file = key_file("key", std::string(40, 'k'));
  }

  std::string key_file(const std::string& name, const std::string& bytes) const {
    const std::string path = folder_.write(name, bytes);
    chmod(path.c_str(), 0600);
    return path;
  }

  static token_record record(const std::string& token) {
    token_record made;
    made.generation = 7;
    made.current.access = secret(std::string(token));
    return made;
  }

  static std::string token_of(const token_store::reading& got) {
    return got.record ? got.record->current.access.text() : got.error;
  }

  std::string file_of(const std::string& name) const { return folder_.path("broker/" + name + ".record"); }

  static std::string content(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
  }

  temporary_folder folder_;
  configuration config_;
};

TEST_F(TokenStore, KeepsEveryNameApart) {
  token_store store;
  ASSERT_EQ(store.open(config_), "");
  const std::vector<std::string> names = {"alice", "Alice", "a.b", "a%2eb", "../up", "\xc3\xa4 \"x\"", ".", "a/b"};
  for (const std::string& name : names) ASSERT_EQ(store.write(name, record("token of " + name)), "") << name;
  for (const std::string& name : names) {
    EXPECT_EQ(token_of(store.read(name)), "token of " + name);
    EXPECT_EQ(record_account(record_name(name) + ".record"), name);
  }
  EXPECT_EQ(store.names().size(), names.size());
  ASSERT_EQ(store.remove("../up"), "");
  EXPECT_EQ(store.read("../up").how, token_store::reading::verdict::missing);
  for (const char* other : {"alice.record.new", "alice.lock", "%2.record", "%zz.record"})
    EXPECT_FALSE(record_account(other)) << other;
}

TEST_F(TokenStore, OpensNothingThatWasChangedOrMoved) {
  token_store store;
  ASSERT_EQ(store.open(config_), "");
  ASSERT_EQ(store.write("alice", record("a")), "");
  ASSERT_EQ(store.write("bob", record("b")), "");
  const std::string sealed = content(file_of("alice"));
  EXPECT_EQ(sealed.find("access"), std::string::npos);
  std::ofstream(file_of("bob"), std::ios::binary) << sealed;
  EXPECT_EQ(store.read("bob").how, token_store::reading::verdict::unreadable) << "it is alice's";
  for (std::size_t at = 0; at < sealed.size(); at += 3) {
    std::string changed = sealed;
    changed[at] = static_cast<char>(changed[at] ^ 1);
    std::ofstream(file_of("alice"), std::ios::binary) << changed;
    ASSERT_EQ(store.read("alice").how, token_store::reading::verdict::unreadable) << at;
  }
  for (const std::size_t length : {std::size_t{0}, std::size_t{20}, sealed.size() - 1}) {
    std::ofstream(file_of("alice"), std::ios::binary) << sealed.substr(0, length);
    ASSERT_EQ(store.read("alice").how, token_store::reading::verdict::unreadable) << length;
  }
  config_.broker_key_file = key_file("other", std::string(40, 'o'));
  token_store stranger;
  ASSERT_EQ(stranger.open(config_), "");
  std::ofstream(file_of("alice"), std::ios::binary) << sealed;
  EXPECT_NE(stranger.read("alice").error.find("another key"), std::string::npos);
}

TEST_F(TokenStore, MovesToAnotherKeyUnderARunningBroker) {
  token_store running, command;
  ASSERT_EQ(running.open(config_), "");
  ASSERT_EQ(running.write("alice", record("a")), "");
  for (const std::string& bytes : {std::string(32, 'n'), std::string(33, '\n'), std::string(34, '\n') + "x\n"}) {
    ASSERT_EQ(command.open(config_), "");
    ASSERT_EQ(command.rekey(key_file("new", bytes + "\n")), "");
    EXPECT_EQ(token_of(running.read("alice")), "a");
    ASSERT_EQ(running.write("alice", record("a")), "");
    token_store next;
    ASSERT_EQ(next.open(config_), "");
    EXPECT_EQ(token_of(next.read("alice")), "a");
  }
  EXPECT_NE(command.rekey(key_file("new", "short")), "");
}

}  // namespace
}  // namespace tarvex::server
