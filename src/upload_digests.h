/// \file
/// The digests of an upload in parts, taken as its bytes come.
#pragma once

#include "digest.h"
#include "tarvex_box_common.h"
#include "worker_pool.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace tarvex::box {

/// The digests of a file as they were at one place of it.
struct digest_mark {
  SHA_CTX sha1;
  MD5_CTX md5;
};

/// Takes the bytes of a file, part by part, into the digests of its record and into a SHA-1 of each part. That of the
/// part, without which it cannot be sent, runs on the calling thread; the file's, which only the commit needs, run
/// beside it on a thread of their own, in one pass over slices that stay in its cache. One thread calls.
class upload_digests {
 public:
  /// The record is the digests' alone as long as they live.
  explicit upload_digests(tarvex_box_upload_session_t& upload);
  upload_digests(const upload_digests&) = delete;
  upload_digests& operator=(const upload_digests&) = delete;
  /// Waits for the file's digests.
  ~upload_digests() = default;

  /// A part begins. \param mark  takes the state of the file's digests before it: once they have come so far, at a
  /// place that must stay until then.
  void begin_part(digest_mark& mark);

  /// The part's next bytes, which stay until the file's digests have `come_to` the `given` of then.
  void add(const unsigned char* data, size_t length) noexcept;

  /// The part is complete. \return what failed since it began, a sentence; null: nothing did
  const char* finish_part(sha1_digest& digest);

  /// How much the file's digests were given to do.
  [[nodiscard]] uint64_t given() const { return given_; }
  /// Waits until they have done what they were given until then.
  void come_to(uint64_t given);
  /// Waits until they have done all. \return as finish_part, of them.
  const char* settle();
  /// Takes everything back that came after the mark.
  void return_to(const digest_mark& mark);

 private:
  const char* add_to_file(const unsigned char* data, size_t length);
  void beside(std::function<void()> job);
  void done();

  tarvex_box_upload_session_t& upload_;
  SHA_CTX part_{};
  const char* failure_ = nullptr;
  uint64_t given_ = 0;
  std::mutex mutex_;  // guards the next two
  uint64_t done_ = 0;
  const char* file_failure_ = nullptr;
  std::condition_variable changed_;
  worker_pool beside_;  // the last member: its thread uses the others
};

}  // namespace tarvex::box
