// Handles on errors. A handle has the number of a slot in its low 20 bits and the slot's generation, 1 to 4095, in the
// bits above, so that no handle is 0. A slot takes its next generation when it is vacated; vacated slots wait in a
// queue, so that as many other slots as possible are used before a handle's number comes up again.

#include "error.h"
#include "never_destroyed.h"
#include "object.h"

#include <algorithm>
#include <exception>
#include <mutex>
#include <utility>
#include <vector>

namespace tarvex::common {
namespace {

constexpr unsigned SLOT_BITS = 20;
constexpr uint32_t SLOT_MASK = (uint32_t{1} << SLOT_BITS) - 1;
constexpr uint32_t SLOT_LIMIT = SLOT_MASK;  // the last slot stays unused: with it TARVEX_FAILURE could be a handle
constexpr uint32_t GENERATION_LIMIT = (uint32_t{1} << (32 - SLOT_BITS)) - 1;
constexpr uint32_t FIRST_SLOTS = 256;
constexpr uint32_t NO_SLOT = SLOT_LIMIT;

/// The handle of the out-of-memory error, which needs no slot: generation 0 is never given out.
constexpr tarvex_result_t OUT_OF_MEMORY_RESULT = 1;

struct slot {
  tarvex_object_t* error = nullptr;  // null: vacant
  uint32_t generation = 1;
  uint32_t next_vacant = NO_SLOT;
};

class result_table {
 public:
  /// Takes over the reference, unless it throws or there are too many results: then it returns success and takes none.
  tarvex_result_t put(tarvex_object_t* error) {
    const std::lock_guard lock(mutex_);
    if (first_vacant_ == NO_SLOT && !grow()) return TARVEX_SUCCESS;
    const uint32_t number = first_vacant_;
    slot& chosen = slots_[number];
    first_vacant_ = std::exchange(chosen.next_vacant, NO_SLOT);
    if (first_vacant_ == NO_SLOT) last_vacant_ = NO_SLOT;
    chosen.error = error;
    return chosen.generation << SLOT_BITS | number;
  }

  /// Null for a handle that is not in use.
  tarvex_object_t* peek(tarvex_result_t result) {
    const std::lock_guard lock(mutex_);
    const slot* found = find(result);
    return found == nullptr ? nullptr : found->error;
  }

  /// Vacates the handle's slot; the reference is the caller's. Null for a handle that is not in use.
  tarvex_object_t* take(tarvex_result_t result) {
    const std::lock_guard lock(mutex_);
    slot* found = find(result);
    if (found == nullptr) return nullptr;
    found->generation = found->generation % GENERATION_LIMIT + 1;
    append_vacant(result & SLOT_MASK);
    return std::exchange(found->error, nullptr);
  }

 private:
  slot* find(tarvex_result_t result) {
    const uint32_t number = result & SLOT_MASK;
    if (number >= slots_.size()) return nullptr;
    slot& candidate = slots_[number];
    return candidate.error != nullptr && candidate.generation == result >> SLOT_BITS ? &candidate : nullptr;
  }

  void append_vacant(uint32_t number) {
    uint32_t& link = last_vacant_ == NO_SLOT ? first_vacant_ : slots_[last_vacant_].next_vacant;
    link = last_vacant_ = number;
  }

  bool grow() {
    const auto old_size = static_cast<uint32_t>(slots_.size());
    const uint32_t new_size = std::min(std::max(FIRST_SLOTS, old_size * 2), SLOT_LIMIT);
    if (new_size == old_size) return false;
    slots_.resize(new_size);
    for (uint32_t number = old_size; number < new_size; ++number) append_vacant(number);
    return true;
  }

  std::mutex mutex_;  // guards all below
  std::vector<slot> slots_;
  uint32_t first_vacant_ = NO_SLOT;
  uint32_t last_vacant_ = NO_SLOT;
};

constinit never_destroyed<result_table> results;

tarvex_result_t put_or_fall_back(tarvex_object_t* error) {
  tarvex_result_t result = TARVEX_SUCCESS;
  try {
    result = results.value.put(error);
  } catch (const std::exception&) {
    // no memory to grow
  }
  if (result != TARVEX_SUCCESS) return result;
  tarvex_object_free(error);
  return OUT_OF_MEMORY_RESULT;
}

}  // namespace
}  // namespace tarvex::common

using tarvex::common::OUT_OF_MEMORY_RESULT;
using tarvex::common::results;

extern "C" {

tarvex_result_t tarvex_error_put(tarvex_object_t* error) {
  if (error == nullptr || error == tarvex::common::out_of_memory_error()) return OUT_OF_MEMORY_RESULT;
  return tarvex::common::put_or_fall_back(error);
}

tarvex_object_t* tarvex_error_peek(tarvex_result_t result) {
  if (result == TARVEX_SUCCESS) return nullptr;
  if (result == OUT_OF_MEMORY_RESULT) return tarvex::common::out_of_memory_error();
  tarvex_object_t* error = results.value.peek(result);
  return error == nullptr ? tarvex::common::failed_error() : error;
}

tarvex_object_t* tarvex_error_get(tarvex_result_t result) {
  tarvex_object_t* error = results.value.take(result);
  return error == nullptr ? tarvex_error_peek(result) : error;
}

void tarvex_result_release(tarvex_result_t result) {
  tarvex_object_free(results.value.take(result));
}

}  // extern "C"
