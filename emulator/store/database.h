#pragma once

#include "tarvex_common.hpp"

#include <cstdint>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace tarvex::emulator {

/// SQLite refused something; the text says what.
struct database_failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// SQLite's own functions under other names, so that its header stays in one source.
void database_close(sqlite3* handle) noexcept;
void statement_finalize(sqlite3_stmt* statement) noexcept;

using statement_ptr = owner<sqlite3_stmt, statement_finalize>;

class database;

/// The rows of one query, stepped through with `next`. Gives its prepared statement back when it goes.
class cursor {
 public:
  cursor(database& owner, const std::string& sql);
  cursor(const cursor&) = delete;
  cursor& operator=(const cursor&) = delete;
  ~cursor();

  /// Binds values to the question marks, from the first on.
  void bind() {}
  template <typename First, typename... Rest>
  void bind(const First& first, const Rest&... rest) {
    bind_one(first);
    bind(rest...);
  }

  /// Moves to the next row; false behind the last one.
  [[nodiscard]] bool next();

  [[nodiscard]] std::int64_t integer(int column) const;
  [[nodiscard]] std::string text(int column) const;

 private:
  void bind_one(std::int64_t value);
  void bind_one(int value) { bind_one(static_cast<std::int64_t>(value)); }
  void bind_one(std::string_view value);
  void check(int outcome) const;

  database& owner_;
  std::string sql_;
  statement_ptr statement_;
  int bound_ = 0;
};

/// One SQLite connection with its prepared statements. Used only inside a `transaction`, which holds its lock.
class database {
 public:
  /// Opens or creates the file and brings its tables up. Throws database_failure.
  explicit database(const std::string& file);

  /// Runs a statement that gives no rows.
  template <typename... Values>
  void run(const std::string& sql, const Values&... values) {
    cursor rows(*this, sql);
    rows.bind(values...);
    while (rows.next()) {
    }
  }

  /// The first column of the first row as a number; `otherwise` without a row.
  template <typename... Values>
  [[nodiscard]] std::int64_t number(const std::string& sql, std::int64_t otherwise, const Values&... values) {
    cursor rows(*this, sql);
    rows.bind(values...);
    return rows.next() ? rows.integer(0) : otherwise;
  }

  /// The next number of a named counter, which is kept in the file.
  [[nodiscard]] std::int64_t next_number(std::string_view counter);

 private:
  friend class cursor;
  friend class transaction;

  owner<sqlite3, database_close> handle_;
  std::map<std::string, std::vector<statement_ptr>> idle_;  // prepared and not in use, by text
  std::mutex mutex_;
};

/// Holds the database for one thread; what was done is undone unless `commit` is called.
class transaction {
 public:
  explicit transaction(database& on);
  transaction(const transaction&) = delete;
  transaction& operator=(const transaction&) = delete;
  ~transaction();

  void commit();

 private:
  database& on_;
  std::unique_lock<std::mutex> lock_;
  bool open_ = true;
};

}  // namespace tarvex::emulator
