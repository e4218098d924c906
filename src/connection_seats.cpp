#include "connection_seats.h"

#include "tarvex_box_common.h"

#include <fcntl.h>

#include <bit>
#include <cerrno>
#include <string>

namespace tarvex::box {

namespace {

constexpr shared_file_kind SEATS_FILE = {.size = connection_seats::COUNT, .prepared_size = 0, .prepare = nullptr};

shared_file tarvex_l_box_seats_open(const char* user_id) noexcept try {
  return shared_file_open(tarvex_i_box_retry_path, (std::string(user_id) + "c").c_str(), SEATS_FILE);
} catch (...) {
  return {};  // out of memory
}

}  // namespace

connection_seats::connection_seats(const char* user_id) noexcept : file_(tarvex_l_box_seats_open(user_id)) {}

connection_seats::~connection_seats() {
  shared_file_close(file_, COUNT);  // and with the description its locks
}

bool connection_seats::take() noexcept {
  const std::lock_guard lock(mutex_);
  for (int seat = 0; seat < COUNT; ++seat) {
    const unsigned bit = 1U << static_cast<unsigned>(seat);
    if ((mine_ & bit) != 0 || !lock_byte(seat, F_WRLCK)) continue;
    mine_ |= bit;
    return true;
  }
  return false;
}

void connection_seats::give() noexcept {
  const std::lock_guard lock(mutex_);
  if (mine_ == 0) return;
  const int seat = std::countr_zero(mine_);
  mine_ &= mine_ - 1;
  (void)lock_byte(seat, F_UNLCK);
}

int connection_seats::taken() const noexcept {
  const std::lock_guard lock(mutex_);
  return std::popcount(mine_);
}

/// Locks of the open file description: they hold between threads and objects of one process too, and closing another
/// descriptor of the file leaves them alone. Where there are no such locks nobody else has the seat.
bool connection_seats::lock_byte(int seat, short type) const noexcept {
  if (file_.fd == -1) return true;
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = seat;
  lock.l_len = 1;
  return fcntl(file_.fd, F_OFD_SETLK, &lock) == 0 || (errno != EAGAIN && errno != EACCES);
}

}  // namespace tarvex::box
