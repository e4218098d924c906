#include "control/plant.h"

#include "base/times.h"

#include <algorithm>
#include <cstring>

namespace tarvex::emulator {
namespace {

item new_item(const user& owner, item_type type, std::int64_t parent, std::string_view name) {
  item made{.owner = owner.id, .type = type, .parent = parent, .name = std::string(name)};
  made.created_at = made.modified_at = made.content_created_at = made.content_modified_at = time_now();
  return made;
}

}  // namespace

item plant_folder(box_state& box, const user& owner, std::int64_t parent, std::string_view name) {
  return box.items.create(new_item(owner, item_type::FOLDER, parent, name));
}

item plant_file(box_state& box, const user& owner, std::int64_t folder, std::string_view name,
                const planted_content& content) {
  item made = new_item(owner, item_type::FILE, folder, name);
  made.size = content.size;
  made.sha1 = content.sha1;
  made.version = box.data.next_number("versions");
  made = box.items.create(std::move(made));
  const std::string stored = content.name.empty() ? std::to_string(made.version) : content.name;
  box.versions.add({made.version, made.id, content.size, content.sha1, stored}, made.created_at);
  return made;
}

std::string pattern_bytes(std::uint64_t seed, std::size_t count) {
  std::string bytes(count, '\0');
  // A xorshift generator: enough to keep a file from being compressible, and the same on every machine.
  std::uint64_t state = seed * 0x9e3779b97f4a7c15ULL + 1;
  for (std::size_t at = 0; at < count; at += sizeof state) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    std::memcpy(bytes.data() + at, &state, std::min(sizeof state, count - at));
  }
  return bytes;
}

}  // namespace tarvex::emulator
