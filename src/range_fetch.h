/// \file
/// One range of a file on its way from the download address into the window, by one thread.
#pragma once

#include "content_address.h"
#include "content_version.h"
#include "flight_width.h"
#include "range_window.h"

#include <chrono>

namespace tarvex::box {

/// What all ranges of a download share.
struct range_sharing {
  tarvex_box_session_t* box;  ///< its token is not for the threads that fetch
  error_source source;
  content_version& version;  ///< guarded by the monitor
  download_monitor& monitor;
  content_address& address;
  range_window& window;
  flight_width& width;  ///< guarded by the monitor
  int& busy;            ///< guarded by the monitor: ranges that will take their connection for a while
};

/// Fetches a range, from where an attempt broke off until all of it is there. A refused address is left for the next
/// one; whatever else ends an attempt counts only as long as no byte comes.
class range_fetch {
 public:
  range_fetch(range_sharing& shared, window_range_ptr range);

  /// \return what the download is to stop with; success also when it was stopped already.
  [[nodiscard]] tarvex_result_t run();
  /// Time that one attempt took for all of it; nothing: there were more.
  std::optional<flight_width::duration> took() const { return took_; }

 private:
  using clock = std::chrono::steady_clock;
  enum class next_step { end, again, next_address };

  tarvex_result_t attempt(const download_address& address);
  next_step judge(tarvex_result_t result);
  tarvex_result_t on_head(int status, const tarvex_dsi_rest_key_array_t& headers);
  tarvex_result_t on_part(const tarvex_dsi_rest_key_array_t& headers);
  tarvex_result_t on_version(content_version::verdict verdict);
  tarvex_result_t on_bytes(unsigned char* bytes, size_t count);
  tarvex_result_t on_progress();
  static tarvex_result_t read(void* argument, void* bytes, size_t count);
  bool stopped() const;
  void pause(int fruitless) const;
  void note_ending();

  range_sharing& shared_;
  const window_range_ptr range_;
  const tarvex_off_t begin_;
  std::optional<flight_width::duration> took_ = {};
  bool ends_ = false;  ///< its connection will be free soon

  // Of the attempt.
  const download_address* address_ = nullptr;
  tarvex_off_t from_ = 0;  ///< where it began
  int status_ = 0;         ///< 0: no answer
  unsigned long retry_after_ = 0;
  bool transport_retryable_ = false;
  clock::time_point asked_ = {};
  clock::time_point answered_ = {};
};

}  // namespace tarvex::box
