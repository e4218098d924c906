#pragma once

#include <cstdint>
#include <string>

namespace tarvex::emulator {

enum class item_type : int { FOLDER = 0, FILE = 1, WEB_LINK = 2 };

/// Whether an item is there, was deleted itself, or went with a folder above it.
enum class item_trash : int { ACTIVE = 0, TRASHED = 1, TRASHED_WITH_FOLDER = 2 };

constexpr std::int64_t ROOT_ID = 0;
constexpr std::int64_t NO_PARENT = -1;

struct item {
  std::int64_t owner = 0;
  item_type type = item_type::FOLDER;
  std::int64_t id = 0;
  std::int64_t parent = NO_PARENT;
  std::string name = {};
  std::int64_t size = 0;     // bytes; of a folder the sum of its contents
  std::int64_t version = 0;  // of a file: its current version
  std::string sha1 = {};     // of a file: 40 lower-case hex digits
  std::int64_t etag = 0;
  std::int64_t created_at = 0;
  std::int64_t modified_at = 0;
  std::int64_t content_created_at = 0;
  std::int64_t content_modified_at = 0;
  std::string description = {};
  std::string url = {};  // of a web link
  item_trash trashed = item_trash::ACTIVE;
  std::int64_t trashed_at = 0;

  [[nodiscard]] bool is_folder() const { return type == item_type::FOLDER; }
  [[nodiscard]] bool is_root() const { return is_folder() && id == ROOT_ID; }
};

/// One version of a file. `content` names the file that holds its bytes.
struct version {
  std::int64_t id = 0;
  std::int64_t file = 0;
  std::int64_t size = 0;
  std::string sha1 = {};
  std::string content = {};
};

/// "d_12", "f_12" or "w_12", as Box's error messages name items.
[[nodiscard]] std::string item_typed_id(item_type type, std::int64_t id);

}  // namespace tarvex::emulator
