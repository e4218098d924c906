#include "upload_digests.h"

#include <algorithm>
#include <system_error>
#include <utility>

namespace tarvex::box {

namespace {

constexpr size_t SLICE_BYTES = size_t{64} << 10;  // stays in a core's own cache between SHA-1 and MD5

constexpr char PART_FAILED[] = "Failed generating part hash.";
constexpr char SHA1_FAILED[] = "Failed updating file sha1 hash.";
constexpr char MD5_FAILED[] = "Failed updating file md5 hash.";

}  // namespace

upload_digests::upload_digests(tarvex_box_upload_session_t& upload) : upload_(upload), beside_(1) {}

void upload_digests::begin_part(digest_mark& mark) {
  failure_ = sha1_begin(part_) ? nullptr : PART_FAILED;
  beside([this, &mark] { mark = {.sha1 = upload_.sha1_ctx, .md5 = upload_.md5_ctx}; });
}

void upload_digests::add(const unsigned char* data, size_t length) noexcept {
  if (length == 0) return;
  try {
    beside([this, data, length] {
      const char* const failure = add_to_file(data, length);
      if (failure == nullptr) return;
      const std::lock_guard lock(mutex_);
      file_failure_ = failure;
    });
  } catch (...) {
    failure_ = SHA1_FAILED;  // out of memory
  }
  if (!sha1_update(part_, data, length)) failure_ = PART_FAILED;
}

const char* upload_digests::add_to_file(const unsigned char* data, size_t length) {
  while (length > 0) {
    const size_t slice = std::min(length, SLICE_BYTES);
    if (!sha1_update(upload_.sha1_ctx, data, slice)) return SHA1_FAILED;
    if (!md5_update(upload_.md5_ctx, data, slice)) return MD5_FAILED;
    data += slice;
    length -= slice;
  }
  return nullptr;
}

const char* upload_digests::finish_part(sha1_digest& digest) {
  if (!sha1_finish(part_, digest)) failure_ = PART_FAILED;
  return failure_;
}

void upload_digests::come_to(uint64_t given) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return done_ >= given; });
}

const char* upload_digests::settle() {
  come_to(given_);
  const std::lock_guard lock(mutex_);
  return file_failure_;
}

void upload_digests::return_to(const digest_mark& mark) {
  (void)settle();
  upload_.sha1_ctx = mark.sha1;
  upload_.md5_ctx = mark.md5;
}

/// Runs a job after all others before it.
void upload_digests::beside(std::function<void()> job) {
  std::function<void()> counted = [this, job = std::move(job)] {
    job();
    done();
  };
  ++given_;
  try {
    beside_.run(counted);
  } catch (const std::system_error&) {  // there is no thread, and so nothing before it
    counted();
  } catch (...) {
    --given_;
    throw;
  }
}

void upload_digests::done() {
  const std::lock_guard lock(mutex_);
  ++done_;
  changed_.notify_all();
}

}  // namespace tarvex::box
