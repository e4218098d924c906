#include "box/session_digests.h"

#include "store/content_store.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace tarvex::emulator {

void session_digest_add(session_digest& to, std::int64_t offset, std::int64_t size) {
  to.apart[offset] = size;
  for (auto next = to.apart.find(to.complete); next != to.apart.end(); next = to.apart.find(to.complete)) {
    to.complete += next->second;
    to.apart.erase(next);
  }
}

void session_digest_carry_on(session_digest& of, int file, std::int64_t most) {
  std::unique_lock lock(of.mutex);
  const std::int64_t from = of.bytes;
  const std::int64_t count = std::min(of.complete - from, most);
  if (count <= 0 || std::exchange(of.carried_on, true)) return;
  sha1_digest digest = of.digest;
  lock.unlock();
  std::vector<char> buffer(static_cast<std::size_t>(count));
  const std::size_t got = file_read(file, buffer.data(), buffer.size(), from);
  digest.update({buffer.data(), got});
  lock.lock();
  of.carried_on = false;
  if (of.bytes != from) return;  // a commit was faster
  of.digest = std::move(digest);
  of.bytes += static_cast<std::int64_t>(got);
}

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
