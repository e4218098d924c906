#pragma once

#include "store/database.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::emulator {

enum class session_state { OPEN, ENDED };

struct upload_session {
  std::string id = {};  // 32 upper-case hex digits
  std::int64_t owner = 0;
  std::int64_t folder = 0;
  std::int64_t file = 0;  // of a new version; 0: a new file
  std::string name = {};  // empty: the file's own
  std::int64_t size = 0;
  std::int64_t part_size = 0;
  std::int64_t expires_at = 0;
  session_state state = session_state::OPEN;
  std::int64_t commits = 0;          // commits that were asked for so far
  std::int64_t first_commit_ms = 0;  // when the first one came, since 1970

  [[nodiscard]] std::int64_t total_parts() const { return (size + part_size - 1) / part_size; }
  [[nodiscard]] std::string content() const { return "session-" + id; }
};

struct upload_part {
  std::int64_t offset = 0;
  std::int64_t size = 0;
  std::string id = {};    // 8 upper-case hex digits
  std::string sha1 = {};  // 40 lower-case hex digits
};

/// Upload sessions and their parts; kept over restarts. Every call is made inside a transaction on the database.
class session_store {
 public:
  explicit session_store(database& on) : on_(on) {}

  void create(const upload_session& made);
  [[nodiscard]] std::optional<upload_session> find(std::string_view id);

  /// An open session of that user for that name in that folder.
  [[nodiscard]] std::optional<upload_session> find_open(std::int64_t owner, std::int64_t folder, std::string_view name,
                                                        std::int64_t now);
  void count_commit(const upload_session& of, std::int64_t now_ms);

  /// Ends a session: committed, aborted or expired. Its parts are forgotten.
  void end(const upload_session& of);

  void add_part(const upload_session& of, const upload_part& part);

  /// Any part that shares bytes with the range.
  [[nodiscard]] std::optional<upload_part> find_overlap(const upload_session& of, std::int64_t offset,
                                                        std::int64_t size);
  /// All parts in the order of the file.
  [[nodiscard]] std::vector<upload_part> parts(const upload_session& of);

 private:
  database& on_;
};

}  // namespace tarvex::emulator
