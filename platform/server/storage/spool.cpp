#include "storage/spool.h"

#include "storage/spool_budget.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <utility>

namespace tarvex::server {

namespace {

std::string default_directory() {
  const char* const named = std::getenv("TMPDIR");
  return named != nullptr && *named != '\0' ? named : "/var/tmp";
}

/// Opens a file without a name. \return none, and errno, when that fails.
descriptor open_unnamed(const std::string& directory) {
  descriptor file(open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  // What file systems without O_TMPFILE, and kernels, say to it (open(2)).
  if (file.get() >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return file;
  std::string name = directory + "/tarvex-spool-XXXXXX";
  descriptor named(mkostemp(name.data(), O_CLOEXEC));
  if (named.get() >= 0) unlink(name.c_str());
  return named;
}

int write_all(int file, std::span<const std::byte> bytes, std::uint64_t offset) {
  while (!bytes.empty()) {
    const ssize_t written = pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    bytes = bytes.subspan(static_cast<std::size_t>(written));
    offset += static_cast<std::uint64_t>(written);
  }
  return 0;
}

}  // namespace

spool::spool(spool&& other) noexcept
    : options_(other.options_),
      blocks_(std::exchange(other.blocks_, {})),
      file_(std::move(other.file_)),
      size_(std::exchange(other.size_, 0)),
      disk_taken_(std::exchange(other.disk_taken_, 0)) {}

spool& spool::operator=(spool&& other) noexcept {
  std::swap(options_, other.options_);
  std::swap(blocks_, other.blocks_);
  std::swap(file_, other.file_);
  std::swap(size_, other.size_);
  std::swap(disk_taken_, other.disk_taken_);
  return *this;
}

spool::~spool() {
  give_memory_back();
  give_disk_back(disk_taken_);
}

void spool::give_disk_back(std::uint64_t bytes) {
  if (!options_.budget || bytes == 0) return;
  spool_budget& all = *options_.budget;
  budget_give_back(all.total.disk_bytes, all.shares[options_.share].disk_bytes, bytes);
  disk_taken_ -= bytes;
}

bool spool::take_memory() {
  if (!options_.budget) return true;
  spool_budget& all = *options_.budget;
  return budget_take(all.total.memory_bytes, all.shares[options_.share].memory_bytes, all.memory_limit_bytes,
                     BLOCK_BYTES);
}

bool spool::take_disk(std::uint64_t bytes) {
  if (!options_.budget) return true;
  spool_budget& all = *options_.budget;
  if (!budget_take(all.total.disk_bytes, all.shares[options_.share].disk_bytes, all.disk_limit_bytes, bytes))
    return false;
  disk_taken_ += bytes;
  return true;
}

void spool::give_memory_back() {
  if (!options_.budget || blocks_.empty()) return;
  spool_budget& all = *options_.budget;
  budget_give_back(all.total.memory_bytes, all.shares[options_.share].memory_bytes, blocks_.size() * BLOCK_BYTES);
}

int spool::append(std::span<const std::byte> bytes) {
  if (options_.limit_bytes != 0 && bytes.size() > options_.limit_bytes - size_) return EFBIG;
  int error = EAGAIN;  // memory that others hold
  if (in_memory() && bytes.size() <= options_.memory_bytes - size_) error = append_to_memory(bytes);
  if (error == EAGAIN) {
    error = in_memory() ? move_to_file() : 0;
    if (error == 0) error = append_to_file(bytes);
  }
  if (error == 0) size_ += bytes.size();
  return error;
}

int spool::append_to_file(std::span<const std::byte> bytes) {
  if (!take_disk(bytes.size())) return EDQUOT;
  const int error = write_all(file_.get(), bytes, size_);
  if (error != 0) give_disk_back(bytes.size());
  return error;
}

int spool::append_to_memory(std::span<const std::byte> bytes) {
  try {
    while (blocks_.size() * BLOCK_BYTES < size_ + bytes.size()) {
      auto block = std::make_unique_for_overwrite<std::byte[]>(BLOCK_BYTES);
      blocks_.reserve(blocks_.size() + 1);
      if (!take_memory()) return EAGAIN;
      blocks_.push_back(std::move(block));
    }
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
  for (std::uint64_t offset = size_; !bytes.empty();) {
    const std::span<std::byte> room = memory_at(offset);
    const std::size_t count = std::min(room.size(), bytes.size());
    std::copy_n(bytes.begin(), count, room.begin());
    bytes = bytes.subspan(count);
    offset += count;
  }
  return 0;
}

std::span<std::byte> spool::memory_at(std::uint64_t offset) const {
  const std::size_t within = static_cast<std::size_t>(offset % BLOCK_BYTES);
  return {blocks_[static_cast<std::size_t>(offset / BLOCK_BYTES)].get() + within, BLOCK_BYTES - within};
}

int spool::move_to_file() {
  if (!take_disk(size_)) return EDQUOT;
  descriptor file = open_unnamed(options_.directory.empty() ? default_directory() : options_.directory);
  int error = file ? 0 : errno;
  for (std::uint64_t offset = 0; error == 0 && offset < size_; offset += BLOCK_BYTES) {
    const std::size_t held = static_cast<std::size_t>(std::min<std::uint64_t>(BLOCK_BYTES, size_ - offset));
    error = write_all(file.get(), memory_at(offset).first(held), offset);
  }
  if (error != 0) {
    give_disk_back(size_);
    return error;
  }
  file_ = std::move(file);
  give_memory_back();
  blocks_.clear();
  return 0;
}

int spool::read(std::uint64_t offset, std::span<std::byte> out, std::size_t& got) const {
  got = 0;
  if (offset >= size_) return 0;
  const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(out.size(), size_ - offset));
  while (in_memory() && got < wanted) {
    const std::span<std::byte> held = memory_at(offset + got);
    const std::size_t count = std::min(held.size(), wanted - got);
    std::copy_n(held.begin(), count, out.begin() + static_cast<std::ptrdiff_t>(got));
    got += count;
  }
  while (got < wanted) {
    const ssize_t count = pread(file_.get(), out.data() + got, wanted - got, static_cast<off_t>(offset + got));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return count < 0 ? errno : EIO;
    got += static_cast<std::size_t>(count);
  }
  return 0;
}

}  // namespace tarvex::server
