#pragma once

#include "box/box_state.h"

#include <cstdint>
#include <string>

namespace tarvex::emulator {

/// Files that are made in one go: equal in content, named prefix + six digits.
struct fill_order {
  std::string user;  // empty: the first account
  std::int64_t folder = ROOT_ID;
  std::int64_t count = 1;
  std::int64_t bytes = 0;  // of each
  std::string prefix = "file-";
};

/// Makes them in one transaction; they share one content. Returns an empty text or what is wrong.
[[nodiscard]] std::string fill_folder(box_state& box, const fill_order& order);

}  // namespace tarvex::emulator
