#pragma once

#include "store/database.h"
#include "store/item.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::emulator {

/// Where a listing goes on: behind the item with this place in the order.
struct item_place {
  std::int64_t type = -1;
  std::string folded = {};
  std::int64_t id = 0;
};

/// The items of all users. Every call is made inside a transaction on the database.
class item_store {
 public:
  explicit item_store(database& on) : on_(on) {}

  [[nodiscard]] std::optional<item> find(std::int64_t owner, item_type type, std::int64_t id);

  /// The item of any owner with a typed id ("d_12", "f_12", "w_12"); never a root.
  [[nodiscard]] std::optional<item> find_typed(std::string_view typed_id);

  /// The active item of a folder whose name is equal without regard to case.
  [[nodiscard]] std::optional<item> find_named(std::int64_t owner, std::int64_t folder, std::string_view name);

  /// All active items of an owner with that text in their names, whatever its case.
  [[nodiscard]] std::vector<item> search(std::int64_t owner, std::string_view text);

  /// Up to `limit` active items behind `after`, in the order folders, files, web links, then by name.
  [[nodiscard]] std::vector<item> list_after(std::int64_t owner, std::int64_t folder, const item_place& after,
                                             std::int64_t limit);

  /// A page by number of items passed over. `sort`: "", "id", "name", "date" or "size".
  [[nodiscard]] std::vector<item> list_from(std::int64_t owner, std::int64_t folder, std::int64_t offset,
                                            std::int64_t limit, std::string_view sort, bool descending);
  [[nodiscard]] std::int64_t count(std::int64_t owner, std::int64_t folder);

  /// What was deleted itself, in the same order.
  [[nodiscard]] std::vector<item> list_trash(std::int64_t owner, const item_place& after, std::int64_t offset,
                                             std::int64_t limit);
  [[nodiscard]] std::int64_t count_trash(std::int64_t owner);

  /// Enters a new item (with the id it has, or else the next one) and adds its size to the folders above.
  item create(item made);

  /// Writes name, parent, description, times, version, size and etag; sizes of the folders above follow.
  void update(const item& before, const item& after);

  /// Moves an item and all below it into the trash, or back again (then as a child of `made.parent`).
  void trash(const item& gone, std::int64_t now);
  void restore(const item& back);

  /// Removes an item for good, with all below it and their metadata and versions. Returns the content files that
  /// nothing names any more; the caller deletes them after the commit.
  [[nodiscard]] std::vector<std::string> purge(const item& gone);

  /// Whether `folder` is `above` or lies below it.
  [[nodiscard]] bool is_below(std::int64_t owner, std::int64_t folder, std::int64_t above);

  /// The folders from the root down to the parent of an item.
  [[nodiscard]] std::vector<item> ancestors(const item& of);

  /// Makes the root folder of a new user.
  void create_root(std::int64_t owner, std::int64_t now);

 private:
  void add_size(std::int64_t owner, std::int64_t folder, std::int64_t bytes);
  void mark_below(const item& top, item_trash from, item_trash to);
  [[nodiscard]] std::vector<item> below(const item& top);

  database& on_;
};

}  // namespace tarvex::emulator
