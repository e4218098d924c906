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
/// digest, carried along as parts arrive in order, so that a commit has little left to read.
struct session_digest {
  std::mutex mutex;                // guards all below
  std::set<std::int64_t> storing;  // offsets
  sha1_digest digest;
  std::int64_t bytes = 0;  // digested so far, from the front of the file
};

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
