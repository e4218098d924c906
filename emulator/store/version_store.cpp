#include "store/version_store.h"

#include <algorithm>

namespace tarvex::emulator {

void version_store::add(const version& made, std::int64_t now) {
  on_.run("INSERT INTO versions(id, file, size, sha1, content, created_at) VALUES(?, ?, ?, ?, ?, ?)", made.id,
          made.file, made.size, made.sha1, made.content, now);
}

std::optional<version> version_store::find(std::int64_t id) {
  cursor rows(on_, "SELECT id, file, size, sha1, content FROM versions WHERE id = ?");
  rows.bind(id);
  if (!rows.next()) return std::nullopt;
  return version{rows.integer(0), rows.integer(1), rows.integer(2), rows.text(3), rows.text(4)};
}

std::vector<listed_version> version_store::list(std::int64_t file) {
  cursor rows(on_,
              "SELECT versions.id, file, size, sha1, content, created_at, ifnull(trashed_at, 0) FROM versions "
              "LEFT JOIN trashed_versions ON trashed_versions.id = versions.id WHERE file = ? ORDER BY versions.id");
  rows.bind(file);
  std::vector<listed_version> found;
  while (rows.next()) {
    found.push_back({{rows.integer(0), rows.integer(1), rows.integer(2), rows.text(3), rows.text(4)},
                     rows.integer(5),
                     rows.integer(6),
                     static_cast<std::int64_t>(found.size()) + 1});
  }
  std::reverse(found.begin(), found.end());
  return found;
}

void version_store::set_trashed(std::int64_t id, std::int64_t at) {
  on_.run("DELETE FROM trashed_versions WHERE id = ?", id);
  if (at != 0) on_.run("INSERT INTO trashed_versions(id, trashed_at) VALUES(?, ?)", id, at);
}

bool version_store::is_trashed(std::int64_t id) {
  return on_.number("SELECT count(*) FROM trashed_versions WHERE id = ?", 0, id) > 0;
}

}  // namespace tarvex::emulator
