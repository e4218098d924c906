#include "content_address.h"

#include <utility>

namespace tarvex::box {

namespace {

/// So many addresses in a row that are refused before they gave a byte mean that the file is refused.
constexpr int MOST_FRUITLESS = 4;

}  // namespace

download_address_ptr content_address::current() const {
  const std::lock_guard lock(monitor_.mutex);
  return current_;
}

void content_address::replace(std::string url, std::string token) {
  const std::lock_guard lock(monitor_.mutex);
  const unsigned number = current_ ? current_->number + 1 : 0;
  current_ = std::make_shared<const download_address>(download_address{std::move(url), std::move(token), number});
  wanted_ = false;
  monitor_.changed.notify_all();
}

download_address_ptr content_address::after(const download_address& refused, tarvex_result_t refusal) {
  owned_result reason(refusal);
  std::unique_lock lock(monitor_.mutex);
  if (!wanted_ && current_->number == refused.number) {
    if (++fruitless_ == MOST_FRUITLESS) {
      monitor_.stop(reason.release());
      return nullptr;
    }
    wanted_ = true;
    monitor_.changed.notify_all();
  }
  monitor_.changed.wait(lock, [&] { return monitor_.stopped || current_->number != refused.number; });
  return monitor_.stopped ? nullptr : current_;
}

void content_address::proved(const download_address& address) {
  const std::lock_guard lock(monitor_.mutex);
  if (address.number == current_->number) fruitless_ = 0;
}

}  // namespace tarvex::box
