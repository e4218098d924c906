#pragma once

#include "box/box_state.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tarvex::emulator {

/// A content that files are made of without an upload.
struct planted_content {
  std::string name = {};  // in the content store; empty: one of its own for each file, named after the version
  std::int64_t size = 0;
  std::string sha1 = {};
};

/// Enters a folder or a file, with its first version, without a request. Counts nothing as used. Inside a transaction.
item plant_folder(box_state& box, const user& owner, std::int64_t parent, std::string_view name);
item plant_file(box_state& box, const user& owner, std::int64_t folder, std::string_view name,
                const planted_content& content);

/// Bytes that depend on nothing but their position and the seed.
[[nodiscard]] std::string pattern_bytes(std::uint64_t seed, std::size_t count);

}  // namespace tarvex::emulator
