#include "control/fill.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "api/storing.h"
#include "base/times.h"

namespace tarvex::emulator {
namespace {

constexpr std::size_t PIECE_BYTES = 1024UL * 1024;
constexpr std::int64_t MOST_FILES = 1000000;

void write_pattern(content_draft& draft, std::int64_t bytes) {
  const std::string piece = pattern_bytes(1, PIECE_BYTES);
  while (draft.size() < bytes) {
    const std::int64_t step = std::min<std::int64_t>(bytes - draft.size(), PIECE_BYTES);
    draft.append(std::string_view(piece).substr(0, static_cast<std::size_t>(step)));
  }
}

std::string numbered(const std::string& prefix, std::int64_t number) {
  std::array<char, 24> digits{};
  std::snprintf(digits.data(), digits.size(), "%06lld", static_cast<long long>(number));
  return prefix + digits.data();
}

struct filler {
  box_state& box;
  user owner;
  const fill_order& order;
  std::string content;
  std::string sha1;

  void add(std::int64_t number) const {
    const std::int64_t now = time_now();
    item made{.owner = owner.id, .type = item_type::FILE, .parent = order.folder};
    made.name = numbered(order.prefix, number);
    made.size = order.bytes;
    made.sha1 = sha1;
    made.created_at = made.modified_at = made.content_created_at = made.content_modified_at = now;
    made.version = box.data.next_number("versions");
    made = box.items.create(std::move(made));
    box.items.add_version({made.version, made.id, order.bytes, sha1, content});
  }
};

}  // namespace

std::string fill_folder(box_state& box, const fill_order& order) {
  if (order.count < 0 || order.count > MOST_FILES || order.bytes < 0) return "count is 0 to 1000000, bytes at least 0";
  content_draft draft(box.contents);
  write_pattern(draft, order.bytes);
  transaction hold(box.data);
  bool created = false;
  const auto owner = order.user.empty() ? box.users.find_first() : box.users.ensure(order.user, time_now(), created);
  if (!owner || created) return "no such user";
  if (!box.items.find(owner->id, item_type::FOLDER, order.folder)) return "no such folder";
  const filler work{box, *owner, order, "fill-" + draft.name(), draft.sha1()};
  for (std::int64_t i = 0; i < order.count; ++i) work.add(i);
  box.users.add_used(owner->id, order.count * order.bytes);
  box.contents.rename(draft.name(), work.content);
  draft.keep();
  hold.commit();
  return {};
}

std::string remove_everything(box_state& box) {
  transaction hold(box.data);
  for (const char* table : {"versions", "metadata", "sessions", "parts"})
    box.data.run(std::string("DELETE FROM ") + table);
  box.data.run("DELETE FROM items WHERE parent <> -1");
  box.data.run("UPDATE items SET size = 0");
  box.data.run("UPDATE users SET used = 0");
  hold.commit();
  box.contents.remove_everything();
  return {};
}

std::string pattern_bytes(std::uint64_t seed, std::size_t count) {
  std::string bytes(count, '\0');
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
