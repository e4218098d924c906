#include "store/session_store.h"

namespace tarvex::emulator {
namespace {

const std::string SELECT =
    "SELECT id, owner, folder, file, name, size, part_size, expires_at, state, commits, first_commit_ms FROM sessions ";

template <typename... Values>
std::optional<upload_session> select(database& on, const std::string& rest, const Values&... values) {
  cursor rows(on, SELECT + rest);
  rows.bind(values...);
  if (!rows.next()) return std::nullopt;
  return upload_session{.id = rows.text(0),
                        .owner = rows.integer(1),
                        .folder = rows.integer(2),
                        .file = rows.integer(3),
                        .name = rows.text(4),
                        .size = rows.integer(5),
                        .part_size = rows.integer(6),
                        .expires_at = rows.integer(7),
                        .state = rows.text(8) == "open" ? session_state::OPEN : session_state::ENDED,
                        .commits = rows.integer(9),
                        .first_commit_ms = rows.integer(10)};
}

upload_part part_of(const cursor& rows) {
  return {.offset = rows.integer(0), .size = rows.integer(1), .id = rows.text(2), .sha1 = rows.text(3)};
}

const std::string SELECT_PART = "SELECT start, size, id, sha1 FROM parts WHERE session = ? ";

}  // namespace

void session_store::create(const upload_session& made) {
  on_.run(
      "INSERT INTO sessions(id, owner, folder, file, name, size, part_size, expires_at, state) "
      "VALUES(?, ?, ?, ?, ?, ?, ?, ?, 'open')",
      made.id, made.owner, made.folder, made.file, made.name, made.size, made.part_size, made.expires_at);
}

std::optional<upload_session> session_store::find(std::string_view id) {
  return select(on_, "WHERE id = ?", id);
}

std::optional<upload_session> session_store::find_open(std::int64_t owner, std::int64_t folder, std::string_view name,
                                                       std::int64_t now) {
  return select(on_, "WHERE owner = ? AND folder = ? AND name = ? AND state = 'open' AND expires_at > ? LIMIT 1", owner,
                folder, name, now);
}

// When the first commit came stays as it was: the time that a session needs runs from there.
void session_store::count_commit(const upload_session& of, std::int64_t now_ms) {
  on_.run(
      "UPDATE sessions SET commits = commits + 1, first_commit_ms = iif(first_commit_ms = 0, ?, first_commit_ms) "
      "WHERE id = ?",
      now_ms, of.id);
}

void session_store::end(const upload_session& of) {
  // The row stays: a later request for this session answers 410, one for a session that never was 404.
  on_.run("UPDATE sessions SET state = 'ended' WHERE id = ?", of.id);
  on_.run("DELETE FROM parts WHERE session = ?", of.id);
}

void session_store::add_part(const upload_session& of, const upload_part& part) {
  on_.run("INSERT INTO parts(session, start, size, id, sha1) VALUES(?, ?, ?, ?, ?)", of.id, part.offset, part.size,
          part.id, part.sha1);
}

// Box refuses a range that shares a byte with a stored part, even when the bytes are the same.
std::optional<upload_part> session_store::find_overlap(const upload_session& of, std::int64_t offset,
                                                       std::int64_t size) {
  cursor rows(on_, SELECT_PART + "AND start < ? AND start + size > ? LIMIT 1");
  rows.bind(of.id, offset + size, offset);
  if (!rows.next()) return std::nullopt;
  return part_of(rows);
}

std::vector<upload_part> session_store::parts(const upload_session& of) {
  cursor rows(on_, SELECT_PART + "ORDER BY start");
  rows.bind(of.id);
  std::vector<upload_part> found;
  while (rows.next()) found.push_back(part_of(rows));
  return found;
}

}  // namespace tarvex::emulator
