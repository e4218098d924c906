#include "store/record_store.h"

namespace tarvex::emulator {
namespace {

template <typename... Values>
std::vector<record> select_records(database& on, const std::string& rest, const Values&... values) {
  cursor rows(on, "SELECT id, owner, subject, value FROM records WHERE kind = ? " + rest + " ORDER BY id");
  rows.bind(values...);
  std::vector<record> found;
  while (rows.next()) found.push_back({rows.integer(0), rows.integer(1), rows.text(2), json_parse(rows.text(3))});
  return found;
}

std::optional<record> front_of(std::vector<record> found) {
  if (found.empty()) return std::nullopt;
  return std::move(found.front());
}

}  // namespace

record record_store::create(std::string_view kind, record made) {
  made.id = on_.next_number("records");
  on_.run("INSERT INTO records(id, kind, owner, subject, value) VALUES(?, ?, ?, ?, ?)", made.id, kind, made.owner,
          made.subject, json_text(made.value.get()));
  return made;
}

void record_store::save(const record& changed) {
  on_.run("UPDATE records SET value = ? WHERE id = ?", json_text(changed.value.get()), changed.id);
}

void record_store::remove(std::int64_t id) {
  on_.run("DELETE FROM records WHERE id = ?", id);
}

std::optional<record> record_store::find(std::string_view kind, std::int64_t id) {
  return front_of(select_records(on_, "AND id = ?", kind, id));
}

std::vector<record> record_store::list(std::string_view kind, std::string_view subject) {
  return select_records(on_, "AND subject = ?", kind, subject);
}

std::optional<record> record_store::first(std::string_view kind, std::string_view subject) {
  return front_of(list(kind, subject));
}

std::vector<record> record_store::list(std::string_view kind) {
  return select_records(on_, "", kind);
}

}  // namespace tarvex::emulator
