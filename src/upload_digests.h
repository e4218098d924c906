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

/// Takes the bytes of a file, part by part, into the digests of its record and into a SHA-1 of each part. The SHA-1s
/// run on the calling thread over slices that stay in its cache; MD5 runs beside them on a thread of its own, so that
/// nothing waits for what only the commit needs. One thread calls.
class upload_digests {
 public:
  /// The record is the digests' alone as long as they live.
  explicit upload_digests(tarvex_box_upload_session_t& upload);
  upload_digests(const upload_digests&) = delete;
  upload_digests& operator=(const upload_digests&) = delete;
  /// Waits for MD5.
  ~upload_digests() = default;

  /// A part begins. \param mark  takes the state of the file's digests before it: once MD5 has come so far, at a place
  /// that must stay until then.
  void begin_part(digest_mark& mark);

  /// The part's next bytes, which stay until MD5 has `come_to` the `given` of then.
  void add(const unsigned char* data, size_t length) noexcept;

  /// The part is complete. \return what failed since it began, a sentence; null: nothing did
  const char* finish_part(sha1_digest& digest);

  /// How much MD5 was given to do.
  [[nodiscard]] uint64_t given() const { return given_; }
  /// Waits until MD5 has done what it was given until then.
  void come_to(uint64_t given);
  /// Waits until MD5 has done all. \return as finish_part, of MD5.
  const char* settle();
  /// Takes everything back that came after the mark.
  void return_to(const digest_mark& mark);

 private:
  void beside(std::function<void()> job);
  void done();

  tarvex_box_upload_session_t& upload_;
  SHA_CTX part_{};
  const char* failure_ = nullptr;
  uint64_t given_ = 0;
  std::mutex mutex_;  // guards the next two
  uint64_t done_ = 0;
  bool md5_failed_ = false;
  std::condition_variable changed_;
  worker_pool beside_;  // the last member: its thread uses the others
};

}  // namespace tarvex::box
