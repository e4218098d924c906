// What item_store does to an item together with the folders above it or all that is below it.
#include "base/names.h"
#include "store/item_rows.h"
#include "store/item_store.h"

#include <algorithm>
#include <iterator>

namespace tarvex::emulator {

// The size of a folder is the sum of all below it, kept up at each change: to sum it up at each look would read the
// whole tree.
void item_store::add_size(std::int64_t owner, std::int64_t folder, std::int64_t bytes) {
  while (folder != NO_PARENT && bytes != 0) {
    folder = on_.number("UPDATE items SET size = size + ? WHERE owner = ? AND type = 0 AND id = ? RETURNING parent",
                        NO_PARENT, bytes, owner, folder);
  }
}

// What was in the trash before its folder went there keeps its own mark, so that it does not come back with the folder.
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
  // The folders above shrink; what the user has used does not, as the trash counts against the storage.
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
    auto children = select_items(on_, "WHERE owner = ? AND parent = ? AND trashed <> 1", top.owner, all[i].id);
    std::move(children.begin(), children.end(), std::back_inserter(all));
  }
  return all;
}

std::vector<std::string> item_store::purge(const item& gone) {
  std::vector<std::string> contents;
  if (gone.trashed == item_trash::ACTIVE) add_size(gone.owner, gone.parent, -gone.size);
  for (const item& each : below(gone)) {
    if (each.type == item_type::FILE) {
      cursor rows(on_, "DELETE FROM versions WHERE file = ? RETURNING content, size, id");
      rows.bind(each.id);
      while (rows.next()) {
        contents.push_back(rows.text(0));
        on_.run("DELETE FROM trashed_versions WHERE id = ?", rows.integer(2));
        on_.run("UPDATE users SET used = used - ? WHERE id = ?", rows.integer(1), gone.owner);
      }
    }
    on_.run("DELETE FROM records WHERE subject = ?", item_typed_id(each.type, each.id));
    on_.run("DELETE FROM instances WHERE type = ? AND item = ?", number(each.type), each.id);
    on_.run("DELETE FROM items WHERE owner = ? AND type = ? AND id = ?", each.owner, number(each.type), each.id);
  }
  // Copies share their content with the original.
  std::erase_if(contents, [this](const std::string& content) {
    return on_.number("SELECT count(*) FROM versions WHERE content = ?", 0, content) > 0;
  });
  return contents;
}

// Upwards from the folder: a path is short where a tree may be wide.
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

}  // namespace tarvex::emulator
