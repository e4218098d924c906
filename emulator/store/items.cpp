#include "store/items.h"

#include <algorithm>

#include "base/names.h"

namespace tarvex::emulator {
namespace {

const std::string SELECT =
    "SELECT owner, type, id, parent, name, size, version, sha1, etag, created_at, modified_at, content_created_at, "
    "content_modified_at, description, url, trashed, trashed_at FROM items ";

item item_of(const cursor& row) {
  return {.owner = row.integer(0),
          .type = static_cast<item_type>(row.integer(1)),
          .id = row.integer(2),
          .parent = row.integer(3),
          .name = row.text(4),
          .size = row.integer(5),
          .version = row.integer(6),
          .sha1 = row.text(7),
          .etag = row.integer(8),
          .created_at = row.integer(9),
          .modified_at = row.integer(10),
          .content_created_at = row.integer(11),
          .content_modified_at = row.integer(12),
          .description = row.text(13),
          .url = row.text(14),
          .trashed = static_cast<item_trash>(row.integer(15)),
          .trashed_at = row.integer(16)};
}

template <typename... Values>
std::vector<item> select(database& on, const std::string& rest, const Values&... values) {
  cursor rows(on, SELECT + rest);
  rows.bind(values...);
  std::vector<item> found;
  while (rows.next()) found.push_back(item_of(rows));
  return found;
}

std::optional<item> first(std::vector<item> found) {
  if (found.empty()) return std::nullopt;
  return std::move(found.front());
}

int number(item_type type) {
  return static_cast<int>(type);
}
int number(item_trash state) {
  return static_cast<int>(state);
}

struct sort_column {
  std::string_view sort;
  const char* column;
};

constexpr sort_column SORT_COLUMNS[] = {
    {"", "folded"}, {"name", "folded"}, {"id", "id"}, {"date", "content_modified_at"}, {"size", "size"}};

std::string_view counter_of(item_type type) {
  static constexpr std::string_view COUNTERS[] = {"folders", "files", "web_links"};
  return COUNTERS[number(type)];
}

}  // namespace

std::optional<item> item_store::find(std::int64_t owner, item_type type, std::int64_t id) {
  return first(select(on_, "WHERE owner = ? AND type = ? AND id = ?", owner, number(type), id));
}

std::optional<item> item_store::find_named(std::int64_t owner, std::int64_t folder, std::string_view name) {
  return first(select(on_, "WHERE owner = ? AND parent = ? AND folded = ? AND trashed = 0 ORDER BY type LIMIT 1", owner,
                      folder, name_folded(name)));
}

std::vector<item> item_store::list_after(std::int64_t owner, std::int64_t folder, const item_place& after,
                                         std::int64_t limit) {
  return select(on_,
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
  return select(on_,
                std::string("WHERE owner = ? AND parent = ? AND trashed = 0 ORDER BY type, ") + column->column +
                    direction + ", id" + direction + " LIMIT ? OFFSET ?",
                owner, folder, limit, offset);
}

std::int64_t item_store::count(std::int64_t owner, std::int64_t folder) {
  return on_.number("SELECT count(*) FROM items WHERE owner = ? AND parent = ? AND trashed = 0", 0, owner, folder);
}

std::vector<item> item_store::list_trash(std::int64_t owner, const item_place& after, std::int64_t offset,
                                         std::int64_t limit) {
  return select(on_,
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
  if (before.parent == after.parent && before.size == after.size) return;
  add_size(before.owner, before.parent, -before.size);
  add_size(after.owner, after.parent, after.size);
}

void item_store::add_size(std::int64_t owner, std::int64_t folder, std::int64_t bytes) {
  while (folder != NO_PARENT && bytes != 0) {
    folder = on_.number("UPDATE items SET size = size + ? WHERE owner = ? AND type = 0 AND id = ? RETURNING parent",
                        NO_PARENT, bytes, owner, folder);
  }
}

void item_store::mark_below(const item& top, item_trash from, item_trash to) {
  on_.run(
      "WITH RECURSIVE tree(type, id) AS (SELECT type, id FROM items WHERE owner = ?1 AND parent = ?2 AND trashed = ?3 "
      "UNION SELECT items.type, items.id FROM items JOIN tree ON items.owner = ?1 AND items.parent = tree.id AND "
      "tree.type = 0 AND items.trashed = ?3) UPDATE items SET trashed = ?4 WHERE owner = ?1 AND (type, id) IN tree",
      top.owner, top.id, number(from), number(to));
}

void item_store::trash(const item& gone, std::int64_t now) {
  if (gone.is_folder()) mark_below(gone, item_trash::ACTIVE, item_trash::TRASHED_WITH_FOLDER);
  on_.run("UPDATE items SET trashed = 1, trashed_at = ? WHERE owner = ? AND type = ? AND id = ?", now, gone.owner,
          number(gone.type), gone.id);
  add_size(gone.owner, gone.parent, -gone.size);
}

void item_store::restore(const item& back) {
  if (back.is_folder()) mark_below(back, item_trash::TRASHED_WITH_FOLDER, item_trash::ACTIVE);
  on_.run(
      "UPDATE items SET trashed = 0, trashed_at = 0, parent = ?, name = ?, folded = ? WHERE owner = ? AND type = ? AND "
      "id = ?",
      back.parent, back.name, name_folded(back.name), back.owner, number(back.type), back.id);
  add_size(back.owner, back.parent, back.size);
}

std::vector<item> item_store::below(const item& top) {
  std::vector<item> all = {top};
  // Grows while it is walked: each folder found adds its own items.
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (!all[i].is_folder()) continue;
    // What was deleted before its folder stays in the trash by itself.
    auto children = select(on_, "WHERE owner = ? AND parent = ? AND trashed <> 1", top.owner, all[i].id);
    std::move(children.begin(), children.end(), std::back_inserter(all));
  }
  return all;
}

std::vector<std::string> item_store::purge(const item& gone) {
  std::vector<std::string> contents;
  if (gone.trashed == item_trash::ACTIVE) add_size(gone.owner, gone.parent, -gone.size);
  for (const item& each : below(gone)) {
    if (each.type == item_type::FILE) {
      cursor rows(on_, "DELETE FROM versions WHERE file = ? RETURNING content, size");
      rows.bind(each.id);
      while (rows.next()) {
        contents.push_back(rows.text(0));
        on_.run("UPDATE users SET used = used - ? WHERE id = ?", rows.integer(1), gone.owner);
      }
    }
    on_.run("DELETE FROM metadata WHERE type = ? AND item = ?", number(each.type), each.id);
    on_.run("DELETE FROM items WHERE owner = ? AND type = ? AND id = ?", each.owner, number(each.type), each.id);
  }
  std::erase_if(contents, [this](const std::string& content) {
    return on_.number("SELECT count(*) FROM versions WHERE content = ?", 0, content) > 0;
  });
  return contents;
}

bool item_store::is_below(std::int64_t owner, std::int64_t folder, std::int64_t above) {
  while (folder != NO_PARENT) {
    if (folder == above) return true;
    folder = on_.number("SELECT parent FROM items WHERE owner = ? AND type = 0 AND id = ?", NO_PARENT, owner, folder);
  }
  return false;
}

std::vector<item> item_store::ancestors(const item& of) {
  std::vector<item> path;
  std::int64_t folder = of.parent;
  while (folder != NO_PARENT) {
    auto found = find(of.owner, item_type::FOLDER, folder);
    if (!found) break;
    folder = found->parent;
    path.push_back(std::move(*found));
  }
  std::reverse(path.begin(), path.end());
  return path;
}

void item_store::add_version(const version& made) {
  on_.run("INSERT INTO versions(id, file, size, sha1, content, created_at) VALUES(?, ?, ?, ?, ?, unixepoch())", made.id,
          made.file, made.size, made.sha1, made.content);
}

std::optional<version> item_store::find_version(std::int64_t id) {
  cursor rows(on_, "SELECT id, file, size, sha1, content FROM versions WHERE id = ?");
  rows.bind(id);
  if (!rows.next()) return std::nullopt;
  return version{rows.integer(0), rows.integer(1), rows.integer(2), rows.text(3), rows.text(4)};
}

void item_store::create_root(std::int64_t owner, std::int64_t now) {
  on_.run(
      "INSERT INTO items(owner, type, id, parent, name, folded, created_at, modified_at, content_created_at, "
      "content_modified_at) VALUES(?, 0, 0, -1, 'All Files', 'all files', ?, ?, ?, ?)",
      owner, now, now, now, now);
}

}  // namespace tarvex::emulator
