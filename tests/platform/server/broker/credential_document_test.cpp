#include "broker/credential_document.h"

#include "tarvex_common.hpp"
#include "temporary_folder.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarvex::server {
namespace {

credential_answer read_file(const std::string& path, std::uint64_t max_upload = 0) {
  account of;
  of.name = "alice";
  of.credential = path;
  of.max_upload = max_upload;
  return credential_of_file(of);
}

/// Reads a file that cannot be used. \return the reply code; neither the path nor the content shows in the reply.
int refused(const std::string& path) {
  const credential_answer answer = read_file(path);
  EXPECT_FALSE(answer.document) << path;
  for (const char* hidden : {"tarvex-test", "secret"})
    EXPECT_EQ(answer.text.find(hidden), std::string::npos) << answer.text;
  return answer.code;
}

TEST(CredentialFile, ReadsOneJsonObjectThatItsOwnerAloneMayWriteAndHandsOnNoMoreThanIsWanted) {
  const temporary_folder folder;
  const std::string good = R"({"access_token":"t","token_expiry":"e","sub":"1","max_upload":100})";
  std::string most = R"({"access_token":"t","refresh_token":"secret","other":")";
  most += std::string((1 << 20) - most.size() - 2, 'x') + "\"}";
  ASSERT_EQ(most.size(), 1U << 20);
  const struct {
    std::string content;
    mode_t mode;
    std::uint64_t max_upload;
    std::string handed;  ///< empty: nothing
  } rows[] = {
      {good, 0600, 0, good},
      {good, 0600, 7, R"({"access_token":"t","token_expiry":"e","sub":"1","max_upload":7})"},
      {good, 0600, 101, good},
      {most, 0644, 0, R"({"access_token":"t"})"},
      {most + " ", 0600, 0, ""},
      {R"({"secret": 1})", 0620, 0, ""},
      {R"({"secret": 1})", 0602, 0, ""},
      {R"(["secret"])", 0600, 0, ""},
      {R"({"secret": )", 0600, 0, ""},
      {"", 0600, 0, ""},
      {R"({"secret": 1, "secret": 2})", 0600, 0, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.content.substr(0, 30));
    const std::string path = folder.write("c.json", row.content);
    chmod(path.c_str(), row.mode);
    if (row.handed.empty()) {
      EXPECT_EQ(refused(path), 530);
      continue;
    }
    const credential_answer answer = read_file(path, row.max_upload);
    EXPECT_EQ(answer.document, row.handed);
    EXPECT_EQ(answer.access_token, "t");
  }
}

TEST(CredentialFile, WhatIsMissingIsNoErrorAndWhatIsNoFileIsNotWaitedFor) {
  const temporary_folder folder;
  const credential_answer missing = read_file(folder.path("none"));
  EXPECT_EQ(missing.code, 0);
  EXPECT_FALSE(missing.document);
  ASSERT_EQ(mkfifo(folder.path("fifo").c_str(), 0600), 0);
  for (const char* name : {"fifo", ""}) EXPECT_EQ(refused(folder.path(name)), 530) << name;
}

TEST(CredentialFile, AServerWithoutDescriptorsDoesNotBlameTheCredential) {
  const temporary_folder folder;
  const std::string path = folder.write("c.json", "{\"secret\": 1}");
  // A sanitizer's check of a virtual call takes a pipe the first time, and the log makes such calls: once before.
  EXPECT_EQ(refused(folder.path()), 530);
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const int first_free = dup(STDERR_FILENO);
  close(first_free);
  const rlimit none = {static_cast<rlim_t>(first_free), before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const int code = refused(path);
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(code, 421);
}

}  // namespace
}  // namespace tarvex::server
