#include "box/session_digests.h"

namespace tarvex::emulator {

// Shared: a part may still be coming in for a session that another request has just ended.
std::shared_ptr<session_digest> session_digests::of(const std::string& session) {
  const std::lock_guard lock(mutex_);
  auto& entry = open_[session];
  if (!entry) entry = std::make_shared<session_digest>();
  return entry;
}

void session_digests::forget(const std::string& session) {
  const std::lock_guard lock(mutex_);
  open_.erase(session);
}

}  // namespace tarvex::emulator
