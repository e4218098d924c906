#include "store/database.h"

#include "store/schema.h"

#include <sqlite3.h>

namespace tarvex::emulator {
namespace {

[[noreturn]] void refuse(sqlite3* handle) {
  throw database_failure(std::string("database: ") + sqlite3_errmsg(handle));
}

}  // namespace

void database_close(sqlite3* handle) noexcept {
  sqlite3_close(handle);
}
void statement_finalize(sqlite3_stmt* statement) noexcept {
  sqlite3_finalize(statement);
}

cursor::cursor(database& owner, const std::string& sql) : owner_(owner), sql_(sql) {
  // A list for each text, since one query may run while rows of the same one are being stepped through.
  auto& idle = owner_.idle_[sql];
  if (!idle.empty()) {
    statement_ = std::move(idle.back());
    idle.pop_back();
    return;
  }
  sqlite3_stmt* prepared = nullptr;
  if (sqlite3_prepare_v3(owner_.handle_.get(), sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT,
                         &prepared, nullptr) != SQLITE_OK) {
    refuse(owner_.handle_.get());
  }
  statement_.reset(prepared);
}

// A prepared statement is kept: to prepare it again costs more than to run it.
cursor::~cursor() {
  sqlite3_reset(statement_.get());
  sqlite3_clear_bindings(statement_.get());
  owner_.idle_[sql_].push_back(std::move(statement_));
}

bool cursor::next() {
  const int outcome = sqlite3_step(statement_.get());
  if (outcome == SQLITE_ROW) return true;
  if (outcome != SQLITE_DONE) refuse(owner_.handle_.get());
  return false;
}

std::int64_t cursor::integer(int column) const {
  return sqlite3_column_int64(statement_.get(), column);
}

std::string cursor::text(int column) const {
  const unsigned char* value = sqlite3_column_text(statement_.get(), column);
  const auto length = static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column));
  return value == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(value), length);
}

void cursor::bind_one(std::int64_t value) {
  check(sqlite3_bind_int64(statement_.get(), ++bound_, value));
}

// Copied by SQLite (TRANSIENT), as the text may be gone before the row is read.
void cursor::bind_one(std::string_view value) {
  check(sqlite3_bind_text(statement_.get(), ++bound_, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT));
}

void cursor::check(int outcome) const {
  if (outcome != SQLITE_OK) refuse(owner_.handle_.get());
}

database::database(const std::string& file) {
  sqlite3* opened = nullptr;
  // Without SQLite's own locks: a `transaction` holds ours.
  const int outcome =
      sqlite3_open_v2(file.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  handle_.reset(opened);
  if (outcome != SQLITE_OK) throw database_failure("cannot open " + file + ": " + sqlite3_errstr(outcome));
  if (sqlite3_exec(opened, SCHEMA, nullptr, nullptr, nullptr) != SQLITE_OK) {
    throw database_failure("cannot use " + file + ": " + sqlite3_errmsg(opened));
  }
}

// Ten digits from the start, as Box's ids are long and clients should not rely on short ones.
std::int64_t database::next_number(std::string_view counter) {
  return number(
      "INSERT INTO counters(name, value) VALUES(?, 1000000001) ON CONFLICT(name) DO UPDATE SET value = value + 1 "
      "RETURNING value",
      0, counter);
}

transaction::transaction(database& on) : on_(on), lock_(on.mutex_) {
  // Immediate: a reader that writes later could else find the file taken by another process in between.
  on_.run("BEGIN IMMEDIATE");
}

transaction::~transaction() {
  if (!open_) return;
  try {
    on_.run("ROLLBACK");
  } catch (const database_failure&) {
    // SQLite has rolled back by itself.
  }
}

void transaction::commit() {
  on_.run("COMMIT");
  open_ = false;
  lock_.unlock();
}

}  // namespace tarvex::emulator
