#include "part_flight.h"

#include "trace.h"
#include "upload_gap.h"

#include <utility>

namespace tarvex::box {

namespace {

constexpr error_source FLIGHT_SOURCE("tarvex_i_box_upload_parts");

const char* tarvex_l_box_token(const tarvex_box_session_t& box) {
  return box.access_token != nullptr ? box.access_token : "";
}

}  // namespace

// One more part than may be on their way can be read meanwhile.
part_flight::part_flight(tarvex_gfs_operation_t op, tarvex_box_session_t* box, tarvex_box_upload_session_t& upload)
    : op_(op),
      box_(box),
      upload_(upload),
      seats_(box->user_id),
      traffic_(box->user_id, tarvex_i_box_part_concurrency),
      buffers_(upload.part_size, static_cast<uint64_t>(tarvex_i_box_part_memory), tarvex_i_box_part_concurrency + 1),
      digests_(upload),
      pool_(static_cast<size_t>(tarvex_i_box_part_concurrency)) {}

tarvex_result_t part_flight::run(int first) {
  owned_result failure(guarded([&]() -> tarvex_result_t {
    for (int index = first; index < upload_.num_parts && !traffic_.failed; ++index) {
      const tarvex_result_t result = read_and_send(index);
      if (result != TARVEX_SUCCESS) return result;
    }
    return TARVEX_SUCCESS;
  }));
  return finish(failure.release());
}

tarvex_result_t part_flight::read_and_send(int index) {
  part_buffer buffer;
  tarvex_result_t result = make_room(buffer);
  if (result != TARVEX_SUCCESS || traffic_.failed) return result;
  flying_part& part = *parts_.emplace_back(std::make_unique<flying_part>());
  part.content = {.index = index, .data = buffer.bytes.get()};
  part.buffer = std::move(buffer);
  result = read(part);
  if (result != TARVEX_SUCCESS || traffic_.failed || stored_before(part)) return result;
  return give_out(part);
}

/// Waits for the memory of a part.
tarvex_result_t part_flight::make_room(part_buffer& buffer) {
  lock held(traffic_.mutex);
  wait(held, [this] { return traffic_.failed || buffers_.free(); });
  if (traffic_.failed) return TARVEX_SUCCESS;
  land();
  buffer = buffers_.take();
  held.unlock();
  if (!buffer.bytes) return error_memory();
  digests_.come_to(buffer.digested);
  return TARVEX_SUCCESS;
}

tarvex_result_t part_flight::read(flying_part& part) {
  digests_.begin_part(part.before);
  const bool last = part.content.index == upload_.num_parts - 1;
  auto* const data = reinterpret_cast<unsigned char*>(part.buffer.bytes.get());
  const tarvex_result_t result =
      monitor_.fill(op_, data, upload_.part_size, last, [this](const unsigned char* piece, size_t length) {
        digests_.add(piece, length);
        return !traffic_.failed;
      });
  part.content.length = monitor_.length();
  part.digested = part.buffer.digested = digests_.given();
  if (result != TARVEX_SUCCESS) return result;
  const char* const failure = digests_.finish_part(part.content.sha1);
  return failure != nullptr ? error_generic(FLIGHT_SOURCE, failure) : SUCCESS;
}

/// Whether Box has the part from a run of the upload that found a gap before it.
bool part_flight::stored_before(flying_part& part) {
  json_t* const record = upload_gap_find(upload_, part.content.index);
  if (part_compare(record, upload_, part.content) != part_presence::there) return false;
  const lock held(traffic_.mutex);
  part.record.reset(json_incref(record));
  part.is = state::stored;
  buffers_.give(std::move(part.buffer));
  return true;
}

/// Has a part sent as soon as that is allowed.
tarvex_result_t part_flight::give_out(flying_part& part) {
  if (tarvex_i_box_part_paced == 1) {
    tarvex_i_box_retry_delay(0, &box_->user_upload_retry);
  } else {
    traffic_.bucket.draw();
  }
  lock held(traffic_.mutex);
  take_seat(held, part);
  if (traffic_.failed) return TARVEX_SUCCESS;
  held.unlock();  // a new token may take a while
  const tarvex_result_t result = tarvex_box_token_refresh(box_, op_);
  if (result == TARVEX_SUCCESS) part.token = tarvex_l_box_token(*box_);
  held.lock();
  if (result == TARVEX_SUCCESS) {
    ++in_flight_;
    start(part);
  } else if (part.seated) {
    seats_.give();
  }
  return result;
}

/// Waits until one more part may be on its way. The first needs no seat, so that no upload waits for others; one that
/// found none looks again when a part of its own is done.
void part_flight::take_seat(lock& held, flying_part& part) {
  for (int without = -1;; without = in_flight_) {
    wait(held, [&] {
      const bool allowed = traffic_.curing == 0 && in_flight_ < traffic_.width.width() && in_flight_ != without;
      return traffic_.failed || allowed;
    });
    if (traffic_.failed) return;
    part.seated = seats_.take();
    if (part.seated || in_flight_ == 0) return;
  }
}

/// Hands a part over to a thread. The lock is held.
void part_flight::start(flying_part& part) {
  part.is = state::flying;
  try {
    pool_.run([this, &part] { fly(part); });
  } catch (...) {
    part.failure = owned_result(error_memory());
    come_down(part, state::failed);
  }
}

/// On a thread of the pool: sends a part.
void part_flight::fly(flying_part& part) noexcept {
  delivery how = delivery::failed;
  const tarvex_result_t thrown = guarded([&]() -> tarvex_result_t {
    how = part_deliver(box_, upload_, traffic_, part);
    return TARVEX_SUCCESS;
  });
  if (thrown != TARVEX_SUCCESS) part.failure = owned_result(thrown);
  const lock held(traffic_.mutex);
  if (how == delivery::unauthorised) {
    part.is = state::unauthorised;
    ++unauthorised_;
  } else {
    come_down(part, how == delivery::stored ? state::stored : state::failed);
  }
  traffic_.changed.notify_all();
}

/// A part is not on its way any more. The lock is held.
void part_flight::come_down(flying_part& part, state how) noexcept {
  part.is = how;
  --in_flight_;
  if (std::exchange(part.seated, false)) seats_.give();
  if (how == state::stored) {
    buffers_.give(std::move(part.buffer));
  } else {
    traffic_.failed = true;
  }
}

/// Waits until `ready`; parts whose token is refused meanwhile get another one, which only this thread can ask for.
template <typename Ready>
void part_flight::wait(lock& held, Ready ready) {
  for (;;) {
    traffic_.changed.wait(held, [&] { return unauthorised_ > 0 || ready(); });
    if (unauthorised_ == 0) return;
    for (const auto& part : parts_) {
      if (part->is == state::unauthorised) renew(held, *part);
    }
  }
}

/// Sends a part again with a token other than the refused one. The session looks at a token's expiry alone, so that is
/// what is taken from it.
void part_flight::renew(lock& held, flying_part& part) {
  --unauthorised_;
  part.renewed = true;
  held.unlock();
  tarvex_result_t result = TARVEX_SUCCESS;
  if (part.token == tarvex_l_box_token(*box_)) {
    box_->access_token_exp = 0;
    result = tarvex_box_token_refresh(box_, op_);
  }
  if (result == TARVEX_SUCCESS) part.token = tarvex_l_box_token(*box_);
  held.lock();
  if (result == TARVEX_SUCCESS) {
    start(part);
  } else {
    part.failure = owned_result(result);
    come_down(part, state::failed);
  }
}

/// Enters what is stored without a gap before it into the record. The lock is held.
void part_flight::land() {
  while (!parts_.empty() && parts_.front()->is == state::stored) {
    digests_.come_to(parts_.front()->digested);  // long ago, as a rule
    json_array_append(upload_.part_array, parts_.front()->record.get());
    parts_.pop_front();
  }
}

/// \param failure  of this thread's own work; taken over
tarvex_result_t part_flight::finish(tarvex_result_t failure) {
  {
    lock held(traffic_.mutex);
    wait(held, [this] { return in_flight_ == 0; });
    land();
  }
  const char* const digests_failed = digests_.settle();
  if (failure == TARVEX_SUCCESS) failure = first_failure();
  if (failure == TARVEX_SUCCESS && digests_failed != nullptr) failure = error_generic(FLIGHT_SOURCE, digests_failed);
  if (failure == TARVEX_SUCCESS) return SUCCESS;
  for (const auto& part : parts_) {
    if (part->is == state::stored) upload_gap_note(upload_, part->content.index, part->record.get());
  }
  if (!parts_.empty()) digests_.return_to(parts_.front()->before);
  return upload_gap_name(upload_, failure);
}

tarvex_result_t part_flight::first_failure() {
  for (const auto& part : parts_) {
    if (part->is == state::failed) return part->failure.release();
  }
  return TARVEX_SUCCESS;
}

}  // namespace tarvex::box
