#include "limits/account_seats.h"

namespace tarvex::server {

namespace {

using seat_word = std::atomic<std::uint64_t>;

/// An account and its sessions in one word: a slot is taken, counted and left by one exchange each. 0: free.
constexpr unsigned SEAT_BITS = 24;
constexpr std::uint64_t SEAT_MASK = (std::uint64_t{1} << SEAT_BITS) - 1;

std::uint64_t seats_account(std::uint64_t word) {
  return word & ~SEAT_MASK;
}
std::uint64_t seats_taken(std::uint64_t word) {
  return word & SEAT_MASK;
}

/// FNV-1a of the name, mixed; the count's bits are zero, the others are not.
std::uint64_t account_key(const shared_limits& limits, std::string_view account) {
  std::uint64_t hash = 0xcbf29ce484222325U;
  for (const char byte : account) hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3U;
  const std::uint64_t key = seats_account(limits_hash(limits, hash));
  return key == 0 ? SEAT_MASK + 1 : key;
}

seat_word& seats_at(shared_limits& limits, std::uint64_t key, std::size_t probe) {
  return limits.account_sessions[((key >> SEAT_BITS) + probe) % shared_limits::SLOTS];
}

/// The first slot of the account that is not `except`. Null: none.
seat_word* find_seats(shared_limits& limits, std::uint64_t key, const seat_word* except = nullptr) {
  for (std::size_t probe = 0; probe < shared_limits::PROBES; ++probe) {
    seat_word& candidate = seats_at(limits, key, probe);
    if (&candidate != except && seats_account(candidate) == key) return &candidate;
  }
  return nullptr;
}

void take_seat_off(seat_word& slot, std::uint64_t key) {
  std::uint64_t word = slot;
  while (seats_account(word) == key && seats_taken(word) > 0) {
    if (slot.compare_exchange_weak(word, seats_taken(word) == 1 ? 0 : word - 1)) return;
  }
}

/// Makes the account's slot, with one session in it. \return false when others were quicker; try again.
bool make_seats(shared_limits& limits, std::uint64_t key, bool& full) {
  for (std::size_t probe = 0; probe < shared_limits::PROBES; ++probe) {
    seat_word& candidate = seats_at(limits, key, probe);
    std::uint64_t free = 0;
    if (!candidate.compare_exchange_strong(free, key | 1)) {
      if (seats_account(free) == key) return false;
      continue;
    }
    // Another process may have made one elsewhere at the same moment. Of two that do, at least one sees the other's.
    if (!find_seats(limits, key, &candidate)) return true;
    take_seat_off(candidate, key);
    return false;
  }
  full = true;
  return false;
}

}  // namespace

seat_answer account_seat_take(shared_limits& limits, std::size_t share, std::string_view account, unsigned limit) {
  const std::uint64_t key = account_key(limits, account);
  account_seat_give_back(limits, share);
  limits.seats[share] = key;  // before it is counted: no death may leave a count that nobody takes back
  for (bool full = false; !full;) {
    seat_word* const slot = find_seats(limits, key);
    if (!slot) {
      if (make_seats(limits, key, full)) return seat_answer::taken;
      continue;
    }
    std::uint64_t word = *slot;
    if (seats_account(word) != key) continue;
    if ((limit != 0 && seats_taken(word) >= limit) || seats_taken(word) == SEAT_MASK) {
      limits.seats[share] = 0;
      return seat_answer::limit_reached;
    }
    if (slot->compare_exchange_strong(word, word + 1)) return seat_answer::taken;
  }
  limits.seats[share] = 0;
  return seat_answer::uncounted;
}

void account_seat_give_back(shared_limits& limits, std::size_t share) {
  const std::uint64_t key = limits.seats[share].exchange(0);
  if (key == 0) return;
  if (seat_word* const slot = find_seats(limits, key)) take_seat_off(*slot, key);
}

}  // namespace tarvex::server
