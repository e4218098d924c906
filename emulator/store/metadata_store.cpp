#include "store/metadata_store.h"

namespace tarvex::emulator {

std::optional<metadata> metadata_store::find(const item& subject) {
  cursor rows(on_, "SELECT value, version, id FROM metadata WHERE type = ? AND item = ?");
  rows.bind(static_cast<int>(subject.type), subject.id);
  if (!rows.next()) return std::nullopt;
  return metadata{json_parse(rows.text(0)), rows.integer(1), rows.text(2)};
}

// One template for the whole Box, so an item and its kind are key enough.
void metadata_store::save(const item& subject, const metadata& held) {
  on_.run("INSERT OR REPLACE INTO metadata(type, item, id, version, value) VALUES(?, ?, ?, ?, ?)",
          static_cast<int>(subject.type), subject.id, held.id, held.version, json_text(held.value.get()));
}

void metadata_store::remove(const item& subject) {
  on_.run("DELETE FROM metadata WHERE type = ? AND item = ?", static_cast<int>(subject.type), subject.id);
}

void metadata_store::copy(const item& from, const item& to) {
  on_.run(
      "INSERT INTO metadata(type, item, id, version, value) SELECT type, ?, id, 0, value FROM metadata "
      "WHERE type = ? AND item = ?",
      to.id, static_cast<int>(from.type), from.id);
}

}  // namespace tarvex::emulator
