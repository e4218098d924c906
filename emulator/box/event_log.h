#pragma once

#include "base/json.h"

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>

namespace tarvex::emulator {

/// What happened in each user's account, the newest ten thousand; not kept over a restart. Usable from all threads.
class event_log {
 public:
  /// Enters an event for a user: an object, which gets its `event_id`.
  void add(std::int64_t user, json_ptr event);

  /// Up to `limit` events behind a position, as an array; `position` moves behind them.
  [[nodiscard]] json_ptr since(std::int64_t user, std::int64_t& position, std::int64_t limit) const;

  /// The position behind all.
  [[nodiscard]] std::int64_t position(std::int64_t user) const;

  /// The user's secret name for waiting without a token, and whose name that is (0: nobody's).
  [[nodiscard]] std::string channel_of(std::int64_t user);
  [[nodiscard]] std::int64_t user_of(const std::string& channel) const;

  void clear();

 private:
  struct entry {
    std::int64_t position = 0;
    json_ptr event = nullptr;
  };

  mutable std::mutex mutex_;  // guards all below
  std::int64_t next_ = 1;
  std::map<std::int64_t, std::deque<entry>> events_;
  std::map<std::string, std::int64_t> channels_;
};

}  // namespace tarvex::emulator
