#pragma once

#include <cstdint>
#include <string>

#include "api/call.h"

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

/// Removes all items, sessions and contents; users, their roots and tokens stay.
[[nodiscard]] std::string remove_everything(box_state& box);

/// Bytes that depend on nothing but their position and the seed.
[[nodiscard]] std::string pattern_bytes(std::uint64_t seed, std::size_t count);

}  // namespace tarvex::emulator
