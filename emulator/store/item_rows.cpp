#include "store/item_rows.h"

namespace tarvex::emulator {

// The order of these columns and of the members below is one and the same.
const std::string ITEM_SELECT =
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

}  // namespace tarvex::emulator
