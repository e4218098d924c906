#pragma once

#include "box/app.h"

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::emulator {

/// The apps that this Box knows. Usable from all threads.
class app_list {
 public:
  /// Adds one app (an object) or several (an array of them); one with a known client id replaces that app. Returns an
  /// empty text or what is wrong; then none is added.
  [[nodiscard]] std::string add(const json_t* rows);

  /// The app of that client id. While there are no apps at all, any id that is not empty is one.
  [[nodiscard]] std::optional<app> find(std::string_view client_id) const;

 private:
  mutable std::mutex mutex_;  // guards apps_
  std::vector<app> apps_;
};

}  // namespace tarvex::emulator
