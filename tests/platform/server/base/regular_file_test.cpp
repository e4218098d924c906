#include "base/regular_file.h"

#include "support/temporary_folder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

namespace tarvex::server {
namespace {

TEST(RegularFile, ReadsFilesOnlyAndWaitsForNobody) {
  const temporary_folder folder;
  const std::string file = folder.write("file", std::string(200000, 'x'));
  const std::string large = folder.write("large", std::string((1U << 20) + 1, 'x'));
  const std::string full = folder.write("full", std::string(1U << 20, 'x'));
  const std::string fifo = folder.path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  struct row {
    std::string path;
    mode_t mode;
    file_trust trust;
    int error;  ///< 0: it is read
    const char* text;
  };
  const row rows[] = {
      {file, 0644, file_trust::owner_only, 0, ""},
      {file, 0664, file_trust::owner_only, EPERM, "may be written by others than its owner (mode 0664); chmod go-w it"},
      {file, 0602, file_trust::owner_only, EPERM, "may be written by others than its owner (mode 0602); chmod go-w it"},
      {file, 0666, file_trust::anyone, 0, ""},
      {full, 0600, file_trust::owner_only, 0, ""},
      {large, 0600, file_trust::owner_only, EFBIG, "is larger than 1 MiB"},
      {fifo, 0600, file_trust::anyone, EINVAL, "is no regular file"},
      {folder.path(), 0700, file_trust::anyone, EISDIR, "cannot be read: Is a directory"},
      {folder.path("none"), 0600, file_trust::anyone, ENOENT, "cannot be opened: No such file or directory"},
      {"/dev/null", 0666, file_trust::anyone, EINVAL, "is no regular file"},
  };
  for (const row& row : rows) {
    if (row.path.starts_with(folder.path())) chmod(row.path.c_str(), row.mode);
    std::string content = "untouched";
    const auto failure = regular_file_read(row.path, row.trust, 1, content);
    ASSERT_EQ(failure.has_value(), row.error != 0) << row.path << row.mode;
    if (!failure) {
      EXPECT_EQ(content.size(), std::filesystem::file_size(row.path));
      continue;
    }
    EXPECT_EQ(failure->error, row.error) << row.path;
    EXPECT_EQ(failure->text, row.text) << row.path;
    EXPECT_EQ(content, "untouched");
  }
}

}  // namespace
}  // namespace tarvex::server
