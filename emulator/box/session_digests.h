#pragma once

#include "base/digest.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace tarvex::emulator {

/// What an open upload session keeps in memory: the parts that are being stored at this moment, and the whole-file
/// digest, carried along as parts arrive, so that a commit has little left to read.
struct session_digest {
  std::mutex mutex;                // guards all below
  std::set<std::int64_t> storing;  // offsets
  sha1_digest digest;
  std::int64_t bytes = 0;                      // digested so far, from the front of the file
  std::int64_t complete = 0;                   // stored without a gap, from the front of the file
  std::map<std::int64_t, std::int64_t> apart;  // offset -> size of what is stored beyond that
  bool carried_on = false;                     // by a thread, at this moment
};

/// A part is stored. The mutex is held.
void session_digest_add(session_digest& to, std::int64_t offset, std::int64_t size);

/// Digests up to `most` bytes of what is stored without a gap and was not digested yet, unless another thread does.
/// \param file  the session's content
void session_digest_carry_on(session_digest& of, int file, std::int64_t most);

/// Usable from all threads. A session that is not known (after a restart) starts at nothing and reads its file again.
class session_digests {
 public:
  [[nodiscard]] std::shared_ptr<session_digest> of(const std::string& session);
  void forget(const std::string& session);

 private:
  std::mutex mutex_;  // guards open_
  std::map<std::string, std::shared_ptr<session_digest>> open_;
};

}  // namespace tarvex::emulator
