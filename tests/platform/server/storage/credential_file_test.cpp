#include "storage/credential_file.h"

#include "tarvex_common.hpp"
#include "tarvex_gridftp_server.h"
#include "temporary_folder.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarvex::server {
namespace {

/// Reads a file that cannot be used. \return the reply code; neither the path nor the content shows in the error.
int refused(const std::string& path) {
  std::optional<std::string> text;
  const owned_result result(credential_read(path, text));
  EXPECT_FALSE(result.ok()) << path;
  EXPECT_FALSE(text) << path;
  const std::string error = c_string(tarvex_error_print_chain(tarvex_error_peek(result.get()))).get();
  for (const char* hidden : {"tarvex-test", "secret"}) EXPECT_EQ(error.find(hidden), std::string::npos) << error;
  return tarvex_gfs_ftp_response_error_code(tarvex_error_peek(result.get()));
}

TEST(CredentialFile, ReadsOneJsonObjectThatItsOwnerAloneMayWrite) {
  const temporary_folder folder;
  const std::string most = "{\"secret\":\"" + std::string((1 << 20) - 13, 'x') + "\"}";
  ASSERT_EQ(most.size(), 1U << 20);
  const struct {
    std::string content;
    mode_t mode;
    bool good;
  } rows[] = {
      {"{\"secret\": 1}", 0600, true},
      {most, 0644, true},
      {most + " ", 0600, false},
      {"{\"secret\": 1}", 0620, false},
      {"{\"secret\": 1}", 0602, false},
      {"[\"secret\"]", 0600, false},
      {"{\"secret\": ", 0600, false},
      {"", 0600, false},
      {"{\"secret\": 1, \"secret\": 2}", 0600, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.content.substr(0, 30));
    const std::string path = folder.write("c.json", row.content);
    chmod(path.c_str(), row.mode);
    std::optional<std::string> text;
    EXPECT_TRUE(row.good || refused(path) == 530);
    if (!row.good) continue;
    EXPECT_TRUE(owned_result(credential_read(path, text)).ok());
    EXPECT_TRUE(text == row.content);
  }
}

TEST(CredentialFile, WhatIsMissingIsNoErrorAndWhatIsNoFileIsNotWaitedFor) {
  const temporary_folder folder;
  std::optional<std::string> text;
  for (const std::string& path : {std::string(), folder.path("none")}) {
    EXPECT_TRUE(owned_result(credential_read(path, text)).ok());
    EXPECT_FALSE(text);
  }
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
