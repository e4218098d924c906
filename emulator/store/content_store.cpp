#include "store/content_store.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace tarvex::emulator {
namespace {

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

content_store::content_store(std::string directory) : directory_(std::move(directory) + "/") {
  std::filesystem::create_directories(directory_);
  for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
    const std::string name = entry.path().filename();
    if (name.starts_with(DRAFT_PREFIX)) remove(name);
  }
}

descriptor content_store::open(std::string_view name, bool for_writing) const {
  // A name is never a client's text: version numbers, session ids and drafts only.
  const std::string path = directory_ + std::string(name);
  descriptor file(::open(path.c_str(), (for_writing ? O_RDWR | O_CREAT : O_RDONLY) | O_CLOEXEC, 0600));
  if (!file && (for_writing || errno != ENOENT)) fail("cannot open " + path);
  return file;
}

// rename replaces what is there in one step, so a content is whole under its name or not there at all.
void content_store::rename(std::string_view from, std::string_view to) const {
  std::filesystem::rename(directory_ + std::string(from), directory_ + std::string(to));
}

void content_store::remove(std::string_view name) const {
  std::error_code ignored;  // what is left over is space, not a wrong answer
  std::filesystem::remove(directory_ + std::string(name), ignored);
}

void content_store::remove_all(const std::vector<std::string>& names) const {
  for (const std::string& name : names) remove(name);
}

void content_store::remove_everything() const {
  for (const auto& entry : std::filesystem::directory_iterator(directory_)) remove(entry.path().filename().string());
}

void file_write(int file, std::string_view bytes, std::int64_t offset) {
  while (!bytes.empty()) {
    const ssize_t written = ::pwrite(file, bytes.data(), bytes.size(), offset);
    if (written < 0 && errno == EINTR) continue;
    // A full disk comes as an error or as nothing written.
    if (written <= 0) fail("cannot write content");
    bytes.remove_prefix(static_cast<std::size_t>(written));
    offset += written;
  }
}

std::size_t file_read(int file, char* into, std::size_t most, std::int64_t offset) {
  for (;;) {
    const ssize_t got = ::pread(file, into, most, offset);
    if (got >= 0) return static_cast<std::size_t>(got);
    if (errno != EINTR) fail("cannot read content");
  }
}

}  // namespace tarvex::emulator
