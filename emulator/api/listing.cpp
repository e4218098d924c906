#include "api/listing.h"

#include "api/access.h"
#include "api/item_view.h"
#include "base/names.h"
#include "base/text.h"

#include <algorithm>
#include <iterator>

namespace tarvex::emulator {
namespace {

constexpr std::int64_t DEFAULT_LIMIT = 100;
constexpr std::int64_t MAX_LIMIT = 1000;
constexpr std::int64_t MAX_OFFSET = 9999;

/// A folder's items, or the trash, behind one face.
struct source {
  call& of;
  std::optional<item> folder;  // nothing: the trash

  [[nodiscard]] std::vector<item> after(const item_place& place, std::int64_t limit) const {
    if (!folder) return of.box.items.list_trash(of.me.id, place, 0, limit);
    return of.box.items.list_after(folder->owner, folder->id, place, limit);
  }
  [[nodiscard]] std::vector<item> from(std::int64_t offset, std::int64_t limit) const {
    if (!folder) return of.box.items.list_trash(of.me.id, {}, offset, limit);
    const bool descending = of.in.parameter("direction").value_or("ASC") == "DESC";
    return of.box.items.list_from(folder->owner, folder->id, offset, limit, of.in.parameter("sort").value_or(""),
                                  descending);
  }
  /// What others invited the caller to stands in the root, behind what is the caller's own.
  [[nodiscard]] std::vector<item> invited() const {
    return folder && folder->is_root() ? access_invited(of) : std::vector<item>();
  }
  [[nodiscard]] std::int64_t count() const {
    return folder ? of.box.items.count(folder->owner, folder->id) : of.box.items.count_trash(of.me.id);
  }
};

std::int64_t parameter_number(const call& of, const char* name, std::int64_t otherwise, std::string_view refusal) {
  const auto text = of.in.parameter(name);
  if (!text || text->empty()) return otherwise;
  const auto value = number_of(*text);
  if (!value || *value < 0) throw box_problem(refusal);
  return *value;
}

/// Box's markers are base64 of JSON, too. The padding keeps them from being usable without percent-encoding.
std::string marker_of(const item& last, std::string_view folded) {
  const json_ptr place(json_object());
  json_put(place.get(), "type", static_cast<std::int64_t>(last.type));
  json_put(place.get(), "dir", "next");
  json_put(place.get(), "tail", folded);
  json_put(place.get(), "id", last.id);
  std::string text = json_text(place.get());
  if (text.size() % 3 == 0) text += ' ';
  return base64_encode(text);
}

item_place place_of(const std::string& marker) {
  // Clients ask for the first page without a marker, with an empty one or with 0.
  if (marker.empty() || marker == "0") return {};
  const json_ptr place = json_parse(base64_decode(marker).value_or(""));
  const auto type = json_number_at(place.get(), "type");
  const auto folded = json_text_at(place.get(), "tail");
  const auto id = json_number_at(place.get(), "id");
  require(type && folded && id, "Invalid marker");
  return {*type, *folded, *id};
}

json_ptr entries_of(const call& of, const std::vector<item>& items) {
  item_view view(of);
  json_ptr entries(json_array());
  for (const item& each : items) {
    // A listing may lag behind what was stored; then its pages are shorter than asked for.
    if (of.set.listing_lag_ms == 0) {
      json_add(entries.get(), view.listed(each));
    } else if (const auto shown = of.box.recent.listed(each)) {
      json_add(entries.get(), view.listed(*shown));
    }
  }
  return entries;
}

void put_last_marker(json_t* page, const std::string& style) {
  // All three occur over Box's API: null, the empty text, and no member at all.
  if (style == "null") json_put(page, "next_marker", json_ptr(json_null()));
  if (style == "empty") json_put(page, "next_marker", "");
}

void append(std::vector<item>& to, std::vector<item> more) {
  to.insert(to.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}

response by_marker(const source& from, std::int64_t limit) {
  const call& of = from.of;
  // One more than asked for: a full last page must not promise an empty one behind it.
  auto items = from.after(place_of(of.in.parameter("marker").value_or("")), limit + 1);
  const bool more = static_cast<std::int64_t>(items.size()) > limit;
  if (more) items.pop_back();
  const std::string marker = more ? marker_of(items.back(), name_folded(items.back().name)) : "";
  if (!more) append(items, from.invited());
  const json_ptr page(json_object());
  json_put(page.get(), "entries", entries_of(of, items));
  json_put(page.get(), "limit", limit);
  if (more) {
    json_put(page.get(), "next_marker", marker);
  } else {
    put_last_marker(page.get(), of.set.next_marker);
  }
  return response_json(200, page.get());
}

response by_offset(const source& from, std::int64_t limit) {
  const call& of = from.of;
  const std::int64_t offset = parameter_number(of, "offset", 0, "invalid_offset");
  require(offset <= MAX_OFFSET, "offset is too high; page by markers");
  const auto invited = from.invited();
  const std::int64_t own = from.count();
  auto items = from.from(offset, limit);
  if (offset <= own && own < offset + limit) append(items, invited);
  const json_ptr page(json_object());
  json_put(page.get(), "total_count", own + static_cast<std::int64_t>(invited.size()));
  json_put(page.get(), "entries", entries_of(of, items));
  json_put(page.get(), "offset", offset);
  json_put(page.get(), "limit", limit);
  json_put(page.get(), "order", item_order_json());
  return response_json(200, page.get());
}

response list(const source& from) {
  const call& of = from.of;
  const bool markers = of.in.parameter("usemarker") == "true";
  const std::int64_t asked = parameter_number(of, "limit", DEFAULT_LIMIT, "invalid_limit");
  // A limit above the most is cut, not refused.
  const std::int64_t limit = std::min(asked == 0 ? DEFAULT_LIMIT : asked, MAX_LIMIT);
  const bool has_marker = of.in.parameter("marker").has_value();
  if (has_marker && (!markers || of.in.parameter("offset"))) throw box_problem("invalid_parameter");
  return markers ? by_marker(from, limit) : by_offset(from, limit);
}

}  // namespace

response folder_items(call& of) {
  transaction hold(of.box.data);
  const item folder = call_item(of, item_type::FOLDER, of.id(0), "folder");
  return list({of, folder});
}

response trash_items(call& of) {
  transaction hold(of.box.data);
  return list({of, std::nullopt});
}

}  // namespace tarvex::emulator
