#include "store/metadata_store.h"

namespace tarvex::emulator {
namespace {

const std::string SELECT_INSTANCE = "SELECT value, version, id, place FROM instances WHERE type = ? AND item = ? ";

metadata instance_of(const cursor& rows) {
  return {json_parse(rows.text(0)), rows.integer(1), rows.text(2), rows.text(3)};
}

}  // namespace

std::optional<metadata> metadata_store::find(const item& subject, std::string_view place) {
  cursor rows(on_, SELECT_INSTANCE + "AND place = ?");
  rows.bind(static_cast<int>(subject.type), subject.id, place);
  if (!rows.next()) return std::nullopt;
  return instance_of(rows);
}

std::vector<metadata> metadata_store::list(const item& subject) {
  cursor rows(on_, SELECT_INSTANCE + "ORDER BY place");
  rows.bind(static_cast<int>(subject.type), subject.id);
  std::vector<metadata> found;
  while (rows.next()) found.push_back(instance_of(rows));
  return found;
}

void metadata_store::save(const item& subject, const metadata& held) {
  on_.run("INSERT OR REPLACE INTO instances(type, item, place, id, version, value) VALUES(?, ?, ?, ?, ?, ?)",
          static_cast<int>(subject.type), subject.id, held.place, held.id, held.version, json_text(held.value.get()));
}

void metadata_store::remove(const item& subject, std::string_view place) {
  on_.run("DELETE FROM instances WHERE type = ? AND item = ? AND place = ?", static_cast<int>(subject.type), subject.id,
          place);
}

void metadata_store::remove_all(std::string_view place) {
  on_.run("DELETE FROM instances WHERE place = ?", place);
}

void metadata_store::copy(const item& from, const item& to) {
  on_.run(
      "INSERT INTO instances(type, item, place, id, version, value) SELECT type, ?, place, id, 0, value FROM instances "
      "WHERE type = ? AND item = ?",
      to.id, static_cast<int>(from.type), from.id);
}

}  // namespace tarvex::emulator
