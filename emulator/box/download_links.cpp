#include "box/download_links.h"

#include "base/text.h"
#include "base/times.h"

namespace tarvex::emulator {
namespace {

constexpr std::size_t SWEEP_ABOVE = 10000;

}  // namespace

std::string download_links::add(download_link link) {
  std::string key = "b1!" + random_hex(32);
  const std::lock_guard lock(mutex_);
  // Every download makes a link, so the expired ones are swept now and then.
  if (links_.size() > SWEEP_ABOVE) {
    std::erase_if(links_, [now = time_now_us()](const auto& each) { return each.second.expires_at_us <= now; });
  }
  links_.emplace(key, std::move(link));
  return key;
}

std::optional<download_link> download_links::find(const std::string& key) {
  const std::lock_guard lock(mutex_);
  const auto found = links_.find(key);
  if (found == links_.end() || found->second.expires_at_us <= time_now_us()) return std::nullopt;
  return found->second;
}

}  // namespace tarvex::emulator
