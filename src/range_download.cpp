#include "range_download.h"

#include "connection_seats.h"
#include "content_location.h"
#include "range_fetch.h"
#include "range_plan.h"
#include "trace.h"
#include "worker_pool.h"

#include <algorithm>

namespace tarvex::box {

namespace {

/// Attempts beyond the first at a new address, when the one before has expired.
constexpr int RENEWAL_RETRIES = 4;
/// How often a range that found no free seat looks for one.
constexpr auto SEAT_INTERVAL = std::chrono::milliseconds(100);
/// The operation's thread: gives out ranges, and gets new addresses.
class range_download {
 public:
  range_download(tarvex_gfs_operation_t op, tarvex_box_session_t* box, const error_source& source,
                 const range_wanted& wanted, content_version& version)
      : op_(op),
        box_(box),
        source_(source),
        wanted_(wanted),
        version_(version),
        plan_(wanted.offset, end_of(wanted, version)),
        seats_(box->user_id),
        width_(tarvex_i_box_download_streams),
        address_(monitor_),
        window_(op, monitor_) {}

  tarvex_result_t run(range_leftover& left) {
    int retries = 1;
    if (const tarvex_result_t result = find_address(retries, wanted_.known_version); result != TARVEX_SUCCESS) {
      return result;
    }
    const tarvex_result_t fetched = fetch();
    if (fetched == TARVEX_SUCCESS && monitor_.ranges_ignored) {
      left.url = address_.current()->url;
      left.gaps = gaps();
    }
    return fetched;
  }

 private:
  static tarvex_off_t end_of(const range_wanted& wanted, const content_version& version) {
    const auto size = static_cast<tarvex_off_t>(version.record().size);
    return wanted.length < 0 ? size : wanted.offset + wanted.length;
  }

  /// What was not handed on. No thread is at work.
  std::vector<std::pair<tarvex_off_t, tarvex_off_t>> gaps() {
    const std::lock_guard lock(monitor_.mutex);
    auto ends = window_.not_handed();
    if (!plan_.over()) ends.emplace_back(plan_.next(), plan_.end());
    std::vector<std::pair<tarvex_off_t, tarvex_off_t>> joined;
    for (const auto& [begin, end] : ends) {
      if (!joined.empty() && joined.back().first + joined.back().second == begin) {
        joined.back().second += end - begin;
      } else {
        joined.emplace_back(begin, end - begin);
      }
    }
    const bool to_the_end = !joined.empty() && joined.back().first + joined.back().second == plan_.end();
    if (to_the_end && wanted_.length < 0) joined.back().second = -1;
    return joined;
  }

  /// Connections that there may be at once: while one range ends the next is asked for.
  static size_t most_threads() {
    return static_cast<size_t>(std::min(2 * tarvex_i_box_download_streams, connection_seats::COUNT));
  }

  /// One range that waits for the client while its successor is asked for, beside those that come.
  static size_t most_open() { return static_cast<size_t>(tarvex_i_box_download_streams) + 2; }

  tarvex_result_t find_address(int& retries, bool compare_record) {
    answer content;
    const auto range = range_headers(wanted_.offset, wanted_.length);
    tarvex_result_t result = content_location(box_, source_, wanted_.id, range, retries, content);
    if (result != TARVEX_SUCCESS) return result;
    if (compare_record) result = version_check(box_, source_, wanted_.id, version_seen());
    if (result == TARVEX_SUCCESS) address_.replace(content.location, box_->access_token);
    return result;
  }

  content_version version_seen() {
    const std::lock_guard lock(monitor_.mutex);
    return version_;
  }

  tarvex_result_t renew_address() {
    if (const tarvex_result_t result = tarvex_box_token_refresh(box_, op_); result != TARVEX_SUCCESS) return result;
    int retries = RENEWAL_RETRIES;
    return find_address(retries, true);
  }

  tarvex_result_t fetch() {
    worker_pool pool(most_threads());
    std::unique_lock lock(monitor_.mutex);
    while (!monitor_.stopped && !(plan_.over() && window_.open_ranges() == 0)) {
      if (address_.wanted()) {
        lock.unlock();
        const tarvex_result_t result = guarded([&] { return renew_address(); });
        lock.lock();
        if (result != TARVEX_SUCCESS) monitor_.stop(result);
      } else if (may_begin() && take_seat()) {
        begin_range(pool, lock);
      } else {
        monitor_.changed.wait_for(lock, SEAT_INTERVAL);
      }
    }
    monitor_.stop(TARVEX_SUCCESS);
    return monitor_.failure.release();
  }

  bool may_begin() const { return !plan_.over() && busy_ < width_.width() && window_.open_ranges() < most_open(); }

  /// A download always has one connection.
  bool take_seat() {
    if (seats_.take()) return true;
    if (in_flight_ > 0) return false;
    unseated_ = true;
    return true;
  }

  void begin_range(worker_pool& pool, std::unique_lock<std::mutex>& lock);
  void fetch_range(const window_range_ptr& range);
  void end_range(range_fetch& fetch, tarvex_off_t length, tarvex_result_t result);

  const tarvex_gfs_operation_t op_;
  tarvex_box_session_t* const box_;
  const error_source source_;
  const range_wanted wanted_;
  content_version& version_;
  range_plan plan_;
  connection_seats seats_;
  download_monitor monitor_;

  // Guarded by the monitor.
  flight_width width_;
  int busy_ = 0;
  int in_flight_ = 0;
  bool unseated_ = false;

  content_address address_;
  range_window window_;
  range_sharing shared_ = {.box = box_,
                           .source = source_,
                           .version = version_,
                           .monitor = monitor_,
                           .address = address_,
                           .window = window_,
                           .width = width_,
                           .busy = busy_};
};

void range_download::begin_range(worker_pool& pool, std::unique_lock<std::mutex>& lock) {
  const auto [begin, end] = plan_.take();
  ++busy_;
  ++in_flight_;
  lock.unlock();
  const tarvex_result_t result = guarded([&]() -> tarvex_result_t {
    const window_range_ptr range = window_.open(begin, end);
    pool.run([this, range] { fetch_range(range); });
    return TARVEX_SUCCESS;
  });
  lock.lock();
  if (result != TARVEX_SUCCESS) monitor_.stop(result);
}

void range_download::fetch_range(const window_range_ptr& range) {
  const tarvex_off_t length = range->end - range->next;
  range_fetch fetch(shared_, range);
  end_range(fetch, length, guarded([&] { return fetch.run(); }));
}

void range_download::end_range(range_fetch& fetch, tarvex_off_t length, tarvex_result_t result) {
  const std::lock_guard lock(monitor_.mutex);
  --in_flight_;
  if (unseated_ && in_flight_ == 0) {
    unseated_ = false;
  } else {
    seats_.give();
  }
  if (fetch.took() && plan_.is_full(length)) width_.good(*fetch.took());
  if (result != TARVEX_SUCCESS) monitor_.stop(result);
  monitor_.changed.notify_all();
}

}  // namespace

bool ranges_worth(uint64_t bytes) {
  return tarvex_i_box_download_streams > 1 && bytes > 0 &&
         bytes >= static_cast<uint64_t>(tarvex_i_box_download_stream_minimum);
}

tarvex_result_t ranges_send(tarvex_gfs_operation_t op, tarvex_box_session_t* box, const error_source& source,
                            const range_wanted& wanted, content_version& version, range_leftover& left) {
  range_download download(op, box, source, wanted, version);
  return download.run(left);
}

}  // namespace tarvex::box
