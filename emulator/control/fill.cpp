#include "control/fill.h"

#include "base/times.h"
#include "control/plant.h"
#include "store/content_draft.h"

#include <algorithm>
#include <array>
#include <cstdio>

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

}  // namespace

std::string fill_folder(box_state& box, const fill_order& order) {
  if (order.count < 0 || order.count > MOST_FILES || order.bytes < 0) return "count is 0 to 1000000, bytes at least 0";
  content_draft draft(box.contents);
  write_pattern(draft, order.bytes);
  transaction hold(box.data);
  bool created = false;
  // `ensure` makes a missing user; without a commit it is gone again.
  const auto owner = order.user.empty() ? box.users.find_first() : box.users.ensure(order.user, time_now(), created);
  if (!owner || created) return "no such user";
  if (!box.items.find(owner->id, item_type::FOLDER, order.folder)) return "no such folder";
  // One content for all: a million files cost a million rows and no bytes.
  const planted_content shared{"fill-" + draft.name(), order.bytes, draft.sha1()};
  for (std::int64_t i = 0; i < order.count; ++i) {
    (void)plant_file(box, *owner, order.folder, numbered(order.prefix, i), shared);
  }
  box.users.add_used(owner->id, order.count * order.bytes);
  box.contents.rename(draft.name(), shared.name);
  draft.keep();
  hold.commit();
  return {};
}

}  // namespace tarvex::emulator
