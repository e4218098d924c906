#include "part_courier.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

namespace tarvex::box {

namespace {

constexpr error_source COURIER_SOURCE("tarvex_i_box_upload_parts");
constexpr int MOST_TRIES = 5;
constexpr int64_t FIRST_PAUSE_NS = 250'000'000;  // doubled from try to try
constexpr int STATUS_UNAUTHORISED = 401;

/// What an answer of no success means.
struct trouble {
  int from, to;   ///< statuses
  bool curable;   ///< another try may help
  bool doubtful;  ///< the part may be stored all the same
  bool refuses;   ///< Box cannot keep up
};

constexpr std::array TROUBLES = {
    trouble{200, 399, true, true, false},   // the answer does not describe the part
    trouble{408, 409, true, true, false},   // 409: an earlier try of ours is being stored at this moment
    trouble{416, 416, true, true, false},   // there is a part already, of an earlier try of ours
    trouble{429, 429, true, false, true},   //
    trouble{503, 503, true, true, true},    //
    trouble{500, 9999, true, true, false},  // Box stores some parts that it answers 500 to
};

trouble tarvex_l_box_trouble(int status, tarvex_result_t failure) {
  const bool lost = status == 0 && tarvex_dsi_rest_error_is_retryable(failure);
  for (const trouble& row : TROUBLES) {
    if (row.from <= status && status <= row.to) return row;
  }
  return {.from = status, .to = status, .curable = lost, .doubtful = lost, .refuses = false};
}

/// Unlike for other calls, a refusal without a word is none the less one.
verdict tarvex_l_box_judge_part(const tarvex_dsi_rest_response_arg_t& response, json_t* document,
                                unsigned long& retry_after) {
  verdict judged = judge_status(response, document, retry_after);
  if (judged.result != TARVEX_SUCCESS) return judged;
  if (response.response_code >= 400) {
    judged.result =
        error_generic(COURIER_SOURCE, "Box refused a part with status " + std::to_string(response.response_code) + ".");
  } else if (!json_is_object(json_object_get(document, "part"))) {
    judged.result = error_generic(COURIER_SOURCE, "invalid part upload response");
  }
  return judged;
}

/// Counts a part among those that are being cured, and has its further tries made one at a time.
class cure {
 public:
  explicit cure(part_traffic& traffic) : traffic_(traffic), turn_(traffic.cure, std::defer_lock) {}
  cure(const cure&) = delete;
  cure& operator=(const cure&) = delete;
  ~cure() {
    if (!begun_) return;
    const std::lock_guard lock(traffic_.mutex);
    --traffic_.curing;
    traffic_.changed.notify_all();
  }

  /// Waits for as long as Box asks or good sense does, then for the turn.
  void pause(const part_consignment& part) {
    if (!std::exchange(begun_, true)) {
      const std::lock_guard lock(traffic_.mutex);
      ++traffic_.curing;
    }
    if (turn_.owns_lock()) turn_.unlock();
    if (part.retry_after > 0) {
      tarvex_i_box_retry_delay(part.retry_after, nullptr);
    } else {
      constexpr int64_t NS_PER_SECOND = 1'000'000'000;
      const int64_t wait = FIRST_PAUSE_NS << std::clamp(part.tries - 1, 0, MOST_TRIES);
      const timespec pause = {.tv_sec = wait / NS_PER_SECOND, .tv_nsec = wait % NS_PER_SECOND};
      (void)tarvex_sleep(&pause);
    }
    turn_.lock();
  }

 private:
  part_traffic& traffic_;
  std::unique_lock<std::mutex> turn_;
  bool begun_ = false;
};

enum class step { send, again, stored, unauthorised, failed };

/// One part on its way.
class courier {
 public:
  courier(tarvex_box_session_t* box, const tarvex_box_upload_session_t& upload, part_traffic& traffic,
          part_consignment& part)
      : box_(box), upload_(upload), traffic_(traffic), part_(part) {}

  step deliver();

 private:
  step look();
  step put();
  step put_failed(int status);
  step refused_token(int status) const;
  void time(std::chrono::steady_clock::duration took);

  tarvex_box_session_t* const box_;
  const tarvex_box_upload_session_t& upload_;
  part_traffic& traffic_;
  part_consignment& part_;
};

step courier::deliver() {
  cure curing(traffic_);
  for (;;) {
    step next = part_.doubtful ? look() : step::send;
    if (next == step::send) next = part_.tries < MOST_TRIES ? put() : step::failed;
    if (next != step::again) return next;
    curing.pause(part_);
  }
}

/// Asks Box whether it has the part.
step courier::look() {
  part_look seen = part_look_up(box_, COURIER_SOURCE, upload_, part_.content, part_.token);
  if (seen.presence == part_presence::there) {
    part_.record = std::move(seen.record);
    return step::stored;
  }
  if (seen.presence == part_presence::other) {
    const std::string place = std::to_string(part_offset(upload_, part_.content.index));
    const std::string text = "Box holds other bytes at offset " + place + " of this upload: store the file afresh.";
    part_.failure = owned_result(error_ftp(553, "UPLOAD_CHANGED", text.c_str()));
    return step::failed;
  }
  if (seen.failure.ok()) {
    part_.doubtful = false;
    return step::send;
  }
  if (const step refused = refused_token(seen.status); refused != step::send) return refused;
  return ++part_.tries < MOST_TRIES ? step::again : step::failed;
}

step courier::put() {
  if (++part_.tries > 1 && tarvex_i_box_part_paced == 0) traffic_.bucket.draw();
  tarvex_dsi_rest_write_block_arg_t block{};
  request call = part_request(COURIER_SOURCE, upload_, part_.content, block);
  call.attempts = 1;
  call.judge = tarvex_l_box_judge_part;
  call.access_token = part_.token.c_str();
  answer sent;
  const auto began = std::chrono::steady_clock::now();
  part_.failure = owned_result(request_perform(box_, call, sent));
  part_.retry_after = sent.retry_after;
  if (!part_.failure.ok()) return put_failed(sent.status);
  time(std::chrono::steady_clock::now() - began);
  part_.record.reset(json_incref(json_object_get(sent.document.get(), "part")));
  return step::stored;
}

step courier::put_failed(int status) {
  if (const step refused = refused_token(status); refused != step::send) return refused;
  const trouble met = tarvex_l_box_trouble(status, part_.failure.get());
  part_.doubtful = met.doubtful;
  if (met.refuses) {
    const std::lock_guard lock(traffic_.mutex);
    traffic_.width.refused();
  }
  // Of one that may be stored the last word is Box's list.
  return met.curable && (met.doubtful || part_.tries < MOST_TRIES) ? step::again : step::failed;
}

/// What to do about a refused token; `send`: it was not that.
step courier::refused_token(int status) const {
  if (status != STATUS_UNAUTHORISED) return step::send;
  return part_.renewed ? step::failed : step::unauthorised;
}

/// Only whole parts can be compared.
void courier::time(std::chrono::steady_clock::duration took) {
  if (part_.content.length != upload_.part_size) return;
  const std::lock_guard lock(traffic_.mutex);
  traffic_.width.good(took);
}

}  // namespace

delivery part_deliver(tarvex_box_session_t* box, const tarvex_box_upload_session_t& upload, part_traffic& traffic,
                      part_consignment& part) {
  switch (courier(box, upload, traffic, part).deliver()) {
    case step::stored:
      return delivery::stored;
    case step::unauthorised:
      return delivery::unauthorised;
    default:
      return delivery::failed;
  }
}

}  // namespace tarvex::box
