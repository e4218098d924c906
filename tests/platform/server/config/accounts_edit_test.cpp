#include "config/accounts_edit.h"

#include "support/temporary_folder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace tarvex::server {
namespace {

std::string content(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

mode_t mode(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

std::string put(const std::string& file, const std::string& name) {
  accounts_edit edit;
  std::string error = edit.open(file);
  if (error.empty()) error = edit.put(name, {{"root", "/" + name}});
  return error.empty() ? edit.save() : error;
}

TEST(AccountsEdit, FileKeepsItsModeItsOwnerAndItsLink) {
  const temporary_folder folder;
  const std::string file = folder.path("accounts.toml");
  EXPECT_EQ(put(file, "alice"), "");
  EXPECT_EQ(content(file), "[alice]\nroot = \"/alice\"\n");
  EXPECT_EQ(mode(file) & 07777U, 0600U);
  EXPECT_EQ(mode(folder.path(".accounts.toml.lock")) & 07777U, 0600U);

  ASSERT_EQ(chmod(file.c_str(), 0640), 0);
  const bool root = geteuid() == 0;
  const uid_t user = root ? 1234 : geteuid();
  const gid_t group = root ? 2345 : getegid();
  ASSERT_EQ(chown(file.c_str(), user, group), 0);
  const std::string link = folder.path("link.toml");
  std::filesystem::create_symlink("accounts.toml", link);
  EXPECT_EQ(put(link, "bob"), "");
  EXPECT_EQ(content(file), "[alice]\nroot = \"/alice\"\n\n[bob]\nroot = \"/bob\"\n");
  EXPECT_TRUE(S_ISLNK(mode(link)));
  struct stat status = {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  EXPECT_EQ(std::pair(status.st_uid, status.st_gid), std::pair(user, group));

  accounts_edit edit;
  ASSERT_EQ(edit.open(file), "");
  EXPECT_TRUE(edit.accounts(true).accounts.contains("bob"));
  EXPECT_EQ(edit.remove("alice"), "");
  EXPECT_FALSE(edit.accounts(true).accounts.contains("alice"));
  EXPECT_EQ(edit.save(), "");
  EXPECT_EQ(content(file), "[bob]\nroot = \"/bob\"\n");
  const auto left = std::filesystem::directory_iterator(folder.path());
  EXPECT_EQ(std::distance(begin(left), end(left)), 3) << "no temporary file stays";
}

TEST(AccountsEdit, WhatCannotBeChangedStays) {
  const temporary_folder folder;
  struct row {
    const char* text;
    mode_t mode;
    const char* name;
    const char* error;
  };
  const row rows[] = {
      {"[alice", 0600, "bob", "line 1"},
      {"bob = 1", 0600, "bob", "cannot be changed in place"},
      {"", 0620, "bob", "may be written by others"},
      {"", 0600, "", "a login name has"},
      {"", 0600, "a\nb", "a login name has"},
  };
  for (const row& row : rows) {
    const std::string file = folder.write("accounts.toml", row.text);
    chmod(file.c_str(), row.mode);
    EXPECT_NE(put(file, row.name).find(row.error), std::string::npos) << row.error;
    EXPECT_EQ(content(file), row.text);
  }
  std::filesystem::create_symlink("nothing", folder.path("dangling"));
  EXPECT_NE(put(folder.path("dangling"), "bob").find("leads to a file"), std::string::npos);
  EXPECT_NE(put(folder.path("none/accounts.toml"), "bob").find("No such file"), std::string::npos);
}

TEST(AccountsEdit, EditorsAndOtherCommandsAreNoticed) {
  const temporary_folder folder;
  const std::string file = folder.write("accounts.toml", "");
  chmod(file.c_str(), 0600);
  accounts_edit first;
  ASSERT_EQ(first.open(file), "");
  accounts_edit second;
  EXPECT_NE(second.open(file, std::chrono::milliseconds(50)).find("is being changed by somebody else"),
            std::string::npos);
  ASSERT_EQ(first.put("alice", {}), "");
  folder.write("accounts.toml", "[carol]\n");
  EXPECT_NE(first.save().find("meanwhile"), std::string::npos);
  EXPECT_EQ(content(file), "[carol]\n");
  EXPECT_EQ(second.open(file, std::chrono::milliseconds(50)), "") << "the lock is free again";
}

TEST(AccountsEdit, SeveralAtOnceLoseNothing) {
  constexpr int WRITERS = 6;
  constexpr int EACH = 15;
  const temporary_folder folder;
  const std::string file = folder.path("accounts.toml");
  std::vector<pid_t> writers;
  for (int writer = 0; writer < WRITERS; ++writer) {
    const pid_t child = fork();
    if (child == 0) {
      for (int i = 0; i < EACH; ++i) {
        if (!put(file, "user-" + std::to_string(writer) + "-" + std::to_string(i)).empty()) _exit(1);
      }
      _exit(0);
    }
    writers.push_back(child);
  }
  for (const pid_t writer : writers) {
    int status = -1;
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    EXPECT_EQ(status, 0);
  }
  const std::string text = content(file);
  EXPECT_EQ(std::count(text.begin(), text.end(), '['), WRITERS * EACH);
}

}  // namespace
}  // namespace tarvex::server
