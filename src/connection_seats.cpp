#include "connection_seats.h"

#include "tarvex_box_common.h"

#include <sys/file.h>

#include <algorithm>

namespace tarvex::box {

namespace {

constexpr shared_file_kind SEAT_FILE = {.size = 1, .prepared_size = 0, .prepare = nullptr};

bool tarvex_l_box_is_taken(const shared_file& seat) {
  return seat.start != nullptr;
}

}  // namespace

connection_seats::connection_seats(const char* user_id) : name_(std::string(user_id) + "c") {}

connection_seats::~connection_seats() {
  while (taken() > 0) give();
}

bool connection_seats::take() noexcept {
  const std::lock_guard lock(mutex_);
  for (size_t seat = 0; seat < mine_.size(); ++seat) {
    if (!tarvex_l_box_is_taken(mine_[seat]) && take(seat)) return true;
  }
  return false;
}

/// A lock of the open file, unlike fcntl's, holds between threads and objects of one process too, and closing another
/// descriptor of the file leaves it alone.
bool connection_seats::take(size_t seat) noexcept {
  shared_file file;
  try {
    file = shared_file_open(tarvex_i_box_retry_path, (name_ + std::to_string(seat)).c_str(), SEAT_FILE);
  } catch (...) {
    return false;  // out of memory
  }
  if (file.fd != -1 && flock(file.fd, LOCK_EX | LOCK_NB) != 0) shared_file_close(file, SEAT_FILE.size);
  mine_[seat] = file;
  return tarvex_l_box_is_taken(file);
}

void connection_seats::give() noexcept {
  const std::lock_guard lock(mutex_);
  const auto seat = std::find_if(mine_.begin(), mine_.end(), tarvex_l_box_is_taken);
  if (seat != mine_.end()) shared_file_close(*seat, SEAT_FILE.size);
}

int connection_seats::taken() const noexcept {
  const std::lock_guard lock(mutex_);
  return static_cast<int>(std::count_if(mine_.begin(), mine_.end(), tarvex_l_box_is_taken));
}

}  // namespace tarvex::box
