#include "range_fetch.h"

#include "content_location.h"
#include "trace.h"

#include <algorithm>
#include <cstdlib>

namespace tarvex::box {

namespace {

/// Attempts in a row that may bring no byte.
constexpr int MOST_FRUITLESS = 5;
constexpr int64_t FIRST_PAUSE_MS = 250;

bool tarvex_l_box_address_refused(int status) {
  return status == STATUS_UNAUTHORIZED || status == STATUS_FORBIDDEN || status == STATUS_NOT_FOUND ||
         status == STATUS_GONE;
}

bool tarvex_l_box_limits_refused(int status) {
  return status == STATUS_TOO_MANY_REQUESTS || status == STATUS_UNAVAILABLE;
}

}  // namespace

range_fetch::range_fetch(range_sharing& shared, window_range_ptr range)
    : shared_(shared), range_(std::move(range)), begin_(range_->next) {}

tarvex_result_t range_fetch::run() {
  download_address_ptr address = shared_.address.current();
  int fruitless = 0;
  while (address && !range_->complete()) {
    owned_result result(attempt(*address));
    if (range_->complete() || stopped()) break;
    fruitless = range_->next > from_ ? 0 : fruitless + 1;
    const next_step step = judge(result.get());
    if (step == next_step::next_address) {
      address = shared_.address.after(*address, result.release());
      fruitless = 0;
      continue;
    }
    if (step == next_step::end || fruitless == MOST_FRUITLESS) {
      if (!result.ok()) return result.release();
      return error_generic(shared_.source, "Box ended its answer before all of the file had come.");
    }
    pause(fruitless);
  }
  note_ending();
  return SUCCESS;
}

tarvex_result_t range_fetch::attempt(const download_address& address) {
  address_ = &address;
  from_ = range_->next;
  status_ = 0;
  retry_after_ = 0;
  asked_ = clock::now();
  const request call = {
      .source = shared_.source,
      .url = address.url,
      .headers = range_headers(from_, range_->end - from_),
      .reads_document = false,
      .read = read,
      .read_arg = this,
      .attempts = 1,
      .delayed = false,
      .on_head = [this](int status, const tarvex_dsi_rest_key_array_t& headers) { return on_head(status, headers); },
      .on_progress = [this] { return on_progress(); },
      .access_token = address.token.c_str(),
  };
  answer ignored;
  const tarvex_result_t result = request_perform(shared_.box, call, ignored);
  transport_retryable_ = result != TARVEX_SUCCESS && tarvex_dsi_rest_error_is_retryable(result);
  if (from_ == begin_ && range_->complete()) took_ = clock::now() - asked_;
  return result;
}

range_fetch::next_step range_fetch::judge(tarvex_result_t result) {
  if (tarvex_l_box_address_refused(status_)) return next_step::next_address;
  if (tarvex_l_box_limits_refused(status_)) {
    const std::lock_guard lock(shared_.monitor.mutex);
    shared_.width.refused();
  }
  const bool may_pass = tarvex_l_box_limits_refused(status_) || status_ == STATUS_REQUEST_TIMEOUT || status_ >= 500;
  if (may_pass || transport_retryable_) return next_step::again;
  // An answer whose length nothing tells may end before its time.
  const bool short_part = result == TARVEX_SUCCESS && status_ == STATUS_PARTIAL_CONTENT;
  return short_part ? next_step::again : next_step::end;
}

tarvex_result_t range_fetch::on_head(int status, const tarvex_dsi_rest_key_array_t& headers) {
  status_ = status;
  answered_ = clock::now();
  if (const char* const seconds = header_value(headers, "Retry-After"); seconds != nullptr) {
    retry_after_ = std::strtoul(seconds, nullptr, 10);
  }
  if (status == STATUS_PARTIAL_CONTENT) return on_part(headers);
  if (status < 400) {
    const std::lock_guard lock(shared_.monitor.mutex);
    shared_.monitor.ranges_ignored = true;
    shared_.monitor.stop(TARVEX_SUCCESS);
    return error_generic(shared_.source, "Box did not give a part of the file.");
  }
  if (status != STATUS_RANGE_NOT_SATISFIABLE) return SUCCESS;
  const tarvex_result_t changed = on_version([&] {
    const std::lock_guard lock(shared_.monitor.mutex);
    return shared_.version.compare(status, headers);
  }());
  if (changed != TARVEX_SUCCESS) return changed;
  return error_generic(shared_.source, "Box refused a part of the file, though the file is long enough for it.");
}

tarvex_result_t range_fetch::on_part(const tarvex_dsi_rest_key_array_t& headers) {
  const content_range told = content_range_parse(header_value(headers, "Content-Range"));
  const auto first = static_cast<uint64_t>(from_);
  // Where a part begins its answer has to say (RFC 9110 section 15.3.7).
  if (!told.first || *told.first != first || *told.last >= static_cast<uint64_t>(range_->end)) {
    return error_generic(shared_.source, "Box sent another part of the file than it was asked for.");
  }
  return on_version([&] {
    const std::lock_guard lock(shared_.monitor.mutex);
    return shared_.version.compare(STATUS_PARTIAL_CONTENT, headers);
  }());
}

/// A file that is not as its record had it is fetched in one stream, which takes it as it is.
tarvex_result_t range_fetch::on_version(content_version::verdict verdict) {
  if (verdict == content_version::verdict::same) return SUCCESS;
  if (verdict == content_version::verdict::not_as_recorded) {
    const std::lock_guard lock(shared_.monitor.mutex);
    shared_.monitor.ranges_ignored = true;
    shared_.monitor.stop(TARVEX_SUCCESS);
  }
  return error_changed();
}

tarvex_result_t range_fetch::read(void* argument, void* bytes, size_t count) {
  return guarded(
      [&] { return static_cast<range_fetch*>(argument)->on_bytes(static_cast<unsigned char*>(bytes), count); });
}

/// More than was asked for ends the attempt; the range is complete then.
tarvex_result_t range_fetch::on_bytes(unsigned char* bytes, size_t count) {
  if (status_ != STATUS_PARTIAL_CONTENT) return SUCCESS;
  const auto left = static_cast<size_t>(range_->end - range_->next);
  if (left < count && left == 0) return error_generic(shared_.source, "Box sent more of the file than it announced.");
  if (range_->next == from_) shared_.address.proved(*address_);
  shared_.window.take(range_, bytes, std::min(left, count));
  note_ending();
  return stopped() ? error_generic(shared_.source, "The download was stopped.") : SUCCESS;
}

tarvex_result_t range_fetch::on_progress() {
  shared_.window.idle(range_);
  return stopped() ? error_generic(shared_.source, "The download was stopped.") : SUCCESS;
}

bool range_fetch::stopped() const {
  const std::lock_guard lock(shared_.monitor.mutex);
  return shared_.monitor.stopped;
}

/// As long as Box asks for, else longer each time; not at all after bytes have come. A cancellation ends it.
void range_fetch::pause(int fruitless) const {
  const auto asked = std::min<int64_t>(static_cast<int64_t>(std::min(retry_after_, 3600UL)), tarvex_i_box_max_delay);
  const int64_t own_ms = fruitless > 1 ? FIRST_PAUSE_MS << (fruitless - 2) : 0;
  const int64_t wait_ms = std::max(asked * 1000, own_ms);
  if (wait_ms == 0) return;
  const timespec wait = {.tv_sec = wait_ms / 1000, .tv_nsec = wait_ms % 1000 * 1000000};
  (void)tarvex_sleep(&wait);
}

/// Tells when what is left will take no longer than Box took to answer: the next range is asked for then, so that the
/// connections carry bytes all the time.
void range_fetch::note_ending() {
  if (ends_) return;
  if (!range_->complete()) {
    const auto flowing = clock::now() - answered_;
    const auto come = static_cast<double>(range_->next - from_);
    const auto left = static_cast<double>(range_->end - range_->next);
    if (left > come) return;
    if (left * std::chrono::duration<double>(flowing) > come * std::chrono::duration<double>(answered_ - asked_))
      return;
  }
  ends_ = true;
  const std::lock_guard lock(shared_.monitor.mutex);
  --shared_.busy;
  shared_.monitor.changed.notify_all();
}

}  // namespace tarvex::box
