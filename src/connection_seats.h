/// \file
/// The connections that all sessions of one Box user on this host may have beside the first of each transfer.
#pragma once

#include "shared_file.h"

#include <mutex>

namespace tarvex::box {

/// Seats at a table that the processes of one user share: locked bytes of a file, which a process that dies gives back.
/// Every method may be called from any thread.
class connection_seats {
 public:
  static constexpr int COUNT = 8;

  /// \param user_id  Box user. Without a usable file the seats are this object's alone.
  explicit connection_seats(const char* user_id) noexcept;
  connection_seats(const connection_seats&) = delete;
  connection_seats& operator=(const connection_seats&) = delete;
  ~connection_seats();

  /// \return whether there was a free one
  [[nodiscard]] bool take() noexcept;
  /// Gives one back that was taken.
  void give() noexcept;
  [[nodiscard]] int taken() const noexcept;

 private:
  bool lock_byte(int seat, short type) const noexcept;

  shared_file file_;
  mutable std::mutex mutex_;
  unsigned mine_ = 0;  // a bit for each seat that was taken; guarded by mutex_
};

}  // namespace tarvex::box
