/// \file
/// The connections that all sessions of one Box user on this host may have beside the first of each transfer.
#pragma once

#include "shared_file.h"

#include <array>
#include <mutex>
#include <string>

namespace tarvex::box {

/// Seats at a table that the processes of one user share: locked files, which a process that dies gives back. Every
/// method may be called from any thread.
class connection_seats {
 public:
  static constexpr int COUNT = 8;

  /// \param user_id  Box user. Seats without a usable file are this object's alone.
  explicit connection_seats(const char* user_id);
  connection_seats(const connection_seats&) = delete;
  connection_seats& operator=(const connection_seats&) = delete;
  ~connection_seats();

  /// \return whether there was a free one
  [[nodiscard]] bool take() noexcept;
  /// Gives one back that was taken.
  void give() noexcept;
  [[nodiscard]] int taken() const noexcept;

 private:
  [[nodiscard]] bool take(size_t seat) noexcept;

  const std::string name_;  ///< of the files, without the seat's number
  mutable std::mutex mutex_;
  std::array<shared_file, COUNT> mine_{};  ///< those taken have a `start`; guarded by mutex_
};

}  // namespace tarvex::box
