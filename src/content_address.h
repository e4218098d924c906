/// \file
/// The address that the ranges of a file are fetched from. It expires, and is asked for again then.
#pragma once

#include "download_monitor.h"

#include <memory>
#include <string>

namespace tarvex::box {

/// One address, and the token that it was given for.
struct download_address {
  std::string url = {};
  std::string token = {};
  unsigned number = 0;  ///< counts the addresses of a download
};

using download_address_ptr = std::shared_ptr<const download_address>;

/// Between the threads that fetch, which find that an address is refused, and the one that asks Box for the next. All
/// of it is guarded by the monitor, whose mutex the methods take unless they say that it is held.
class content_address {
 public:
  explicit content_address(download_monitor& monitor) : monitor_(monitor) {}

  download_address_ptr current() const;
  void replace(std::string url, std::string token);

  /// Waits for the address that follows one that was refused.
  /// \param refusal  what the client is told when each new one is refused at once, too; taken over
  /// \return null once the download is stopped
  [[nodiscard]] download_address_ptr after(const download_address& refused, tarvex_result_t refusal);
  /// Bytes came from it.
  void proved(const download_address& address);

  /// Whether another address is waited for. The mutex is held.
  bool wanted() const { return wanted_; }

 private:
  download_monitor& monitor_;
  download_address_ptr current_;
  bool wanted_ = false;
  int fruitless_ = 0;  ///< addresses in a row that gave no byte
};

}  // namespace tarvex::box
