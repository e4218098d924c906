#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace tarvex::emulator {

/// What a download URL serves: one version of a file, under the file's name at that time.
struct download_link {
  std::string content;
  std::string name;
  std::int64_t expires_at_us = 0;
};

/// The download URLs that are alive. They are not kept over a restart. Usable from all threads.
class download_links {
 public:
  /// Makes the unguessable part of a new URL.
  [[nodiscard]] std::string add(download_link link);
  [[nodiscard]] std::optional<download_link> find(const std::string& key);

 private:
  std::mutex mutex_;  // guards links_
  std::map<std::string, download_link> links_;
};

}  // namespace tarvex::emulator
