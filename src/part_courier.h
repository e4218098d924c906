/// \file
/// Sends one of several parts that are on their way at once, until Box has it or it cannot be sent.
#pragma once

#include "flight_width.h"
#include "part_bucket.h"
#include "part_lookup.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

namespace tarvex::box {

/// What the parts on their way have in common.
struct part_traffic {
  /// \param user_id  Box user
  /// \param most     parts at once
  part_traffic(const char* user_id, int most) : bucket(user_id), width(most) {}

  part_bucket bucket;               ///< that each part and each further try is drawn from, unless parts are spaced
  std::mutex mutex;                 ///< guards what has no rule of its own
  std::mutex cure;                  ///< held while a part is tried again: one at a time, since Box has trouble already
  std::atomic<bool> failed{false};  ///< a part cannot be sent; written under the mutex
  std::condition_variable changed;
  flight_width width;
  int curing = 0;  ///< parts that met trouble and may pass yet
};

/// What became of a part.
enum class delivery {
  stored,
  unauthorised,  ///< Box refuses the token: again with another one
  failed
};

/// A part with what the tries so far have shown.
struct part_consignment {
  part_content content = {};
  std::string token = {};  ///< a copy: the session's own may be renewed meanwhile
  bool renewed = false;    ///< the token was, on Box's refusal
  int tries = 0;
  bool doubtful = false;  ///< Box may have it although it did not say so
  unsigned long retry_after = 0;
  json_ptr record = {};       ///< Box's, of a part that is stored
  owned_result failure = {};  ///< of the last try
};

/// Sends a part, again while its failure may be cured. Any thread; a cancellation ends it soon.
[[nodiscard]] delivery part_deliver(tarvex_box_session_t* box, const tarvex_box_upload_session_t& upload,
                                    part_traffic& traffic, part_consignment& part);

}  // namespace tarvex::box
