#include "store/item_store.h"

#include "base/names.h"
#include "base/text.h"
#include "store/item_rows.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

struct sort_column {
  std::string_view sort;
  const char* column;
};

// The sort of a request never becomes SQL itself: what is not in this table sorts by name.
constexpr sort_column SORT_COLUMNS[] = {
    {"", "folded"}, {"name", "folded"}, {"id", "id"}, {"date", "content_modified_at"}, {"size", "size"}};

/// Box numbers files and folders apart, so that a folder and a file may have the same id.
std::string_view counter_of(item_type type) {
  static constexpr std::string_view COUNTERS[] = {"folders", "files", "web_links"};
  return COUNTERS[number(type)];
}

}  // namespace

std::optional<item> item_store::find(std::int64_t owner, item_type type, std::int64_t id) {
  return select_item(on_, "WHERE owner = ? AND type = ? AND id = ?", owner, number(type), id);
}

std::optional<item> item_store::find_typed(std::string_view typed_id) {
  constexpr std::string_view LETTERS = "dfw";
  const auto type = typed_id.size() < 3 ? std::string_view::npos : LETTERS.find(typed_id[0]);
  const auto id = type == std::string_view::npos ? std::nullopt : number_of(typed_id.substr(2));
  if (!id || *id == ROOT_ID) return std::nullopt;
  return select_item(on_, "WHERE type = ? AND id = ?", static_cast<int>(type), *id);
}

std::optional<item> item_store::find_named(std::int64_t owner, std::int64_t folder, std::string_view name) {
  // SQLite would walk through all that the owner has, in the order of the type.
  return select_item(
      on_,
      "INDEXED BY items_named WHERE owner = ? AND parent = ? AND folded = ? AND trashed = 0 ORDER BY type "
      "LIMIT 1",
      owner, folder, name_folded(name));
}

std::vector<item> item_store::list_after(std::int64_t owner, std::int64_t folder, const item_place& after,
                                         std::int64_t limit) {
  // From a place in the order, not from an offset: items that come and go meanwhile shift nothing.
  return select_items(on_,
                      "WHERE owner = ? AND parent = ? AND trashed = 0 AND (type, folded, id) > (?, ?, ?) "
                      "ORDER BY type, folded, id LIMIT ?",
                      owner, folder, after.type, after.folded, after.id, limit);
}

std::vector<item> item_store::list_from(std::int64_t owner, std::int64_t folder, std::int64_t offset,
                                        std::int64_t limit, std::string_view sort, bool descending) {
  const auto* column = std::find_if(std::begin(SORT_COLUMNS), std::end(SORT_COLUMNS),
                                    [&](const sort_column& candidate) { return candidate.sort == sort; });
  if (column == std::end(SORT_COLUMNS)) column = SORT_COLUMNS;
  const std::string direction = descending ? " DESC" : "";
  return select_items(on_,
                      std::string("WHERE owner = ? AND parent = ? AND trashed = 0 ORDER BY type, ") + column->column +
                          direction + ", id" + direction + " LIMIT ? OFFSET ?",
                      owner, folder, limit, offset);
}

std::vector<item> item_store::search(std::int64_t owner, std::string_view text) {
  return select_items(on_,
                      "WHERE owner = ? AND trashed = 0 AND parent <> -1 AND instr(folded, ?) > 0 "
                      "ORDER BY type, folded, id",
                      owner, name_folded(text));
}

std::int64_t item_store::count(std::int64_t owner, std::int64_t folder) {
  return on_.number("SELECT count(*) FROM items WHERE owner = ? AND parent = ? AND trashed = 0", 0, owner, folder);
}

std::vector<item> item_store::list_trash(std::int64_t owner, const item_place& after, std::int64_t offset,
                                         std::int64_t limit) {
  return select_items(
      on_,
      "WHERE owner = ? AND trashed = 1 AND (type, folded, id) > (?, ?, ?) ORDER BY type, folded, id LIMIT ? "
      "OFFSET ?",
      owner, after.type, after.folded, after.id, limit, offset);
}

std::int64_t item_store::count_trash(std::int64_t owner) {
  return on_.number("SELECT count(*) FROM items WHERE owner = ? AND trashed = 1", 0, owner);
}

item item_store::create(item made) {
  if (made.id == 0) made.id = on_.next_number(counter_of(made.type));
  on_.run(
      "INSERT INTO items(owner, type, id, parent, name, folded, size, version, sha1, created_at, modified_at, "
      "content_created_at, content_modified_at, description, url) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
      made.owner, number(made.type), made.id, made.parent, made.name, name_folded(made.name), made.size, made.version,
      made.sha1, made.created_at, made.modified_at, made.content_created_at, made.content_modified_at, made.description,
      made.url);
  if (made.size != 0) add_size(made.owner, made.parent, made.size);
  return made;
}

void item_store::update(const item& before, const item& after) {
  on_.run(
      "UPDATE items SET parent = ?, name = ?, folded = ?, size = ?, version = ?, sha1 = ?, etag = ?, modified_at = ?, "
      "content_created_at = ?, content_modified_at = ?, description = ?, url = ? WHERE owner = ? AND type = ? AND id = "
      "?",
      after.parent, after.name, name_folded(after.name), after.size, after.version, after.sha1, after.etag,
      after.modified_at, after.content_created_at, after.content_modified_at, after.description, after.url, after.owner,
      number(after.type), after.id);
  // Folders above both places lose and gain the same.
  if (before.parent == after.parent && before.size == after.size) return;
  add_size(before.owner, before.parent, -before.size);
  add_size(after.owner, after.parent, after.size);
}

void item_store::create_root(std::int64_t owner, std::int64_t now) {
  on_.run(
      "INSERT INTO items(owner, type, id, parent, name, folded, created_at, modified_at, content_created_at, "
      "content_modified_at) VALUES(?, 0, 0, -1, 'All Files', 'all files', ?, ?, ?, ?)",
      owner, now, now, now, now);
}

}  // namespace tarvex::emulator
