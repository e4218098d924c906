#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "api/problem.h"
#include "base/json.h"
#include "base/settings.h"
#include "control/faults.h"
#include "control/journal.h"
#include "http/message.h"
#include "store/contents.h"
#include "store/database.h"
#include "store/items.h"
#include "store/sessions.h"
#include "store/users.h"

namespace tarvex::emulator {

class download_links;
class session_digests;
class rate_limiter;
class reservations;

/// The whole local Box: what is kept on disk and what is kept in memory. Lives as long as the server.
struct box_state {
  box_state(const std::filesystem::path& directory, settings initial, const std::string& journal_file, bool print);
  ~box_state();

  /// The settings as they are now, and new ones for the requests to come.
  [[nodiscard]] settings current_settings() const;
  void change_settings(settings changed);

  database data;
  content_store contents;
  item_store items{data};
  user_store users{data};
  session_store sessions{data};
  journal requests;
  fault_list faults;
  std::unique_ptr<download_links> downloads;
  std::unique_ptr<session_digests> digests;
  std::unique_ptr<rate_limiter> limiter;
  std::unique_ptr<reservations> reserved;

 private:
  mutable std::mutex mutex_;  // guards settings_
  settings settings_;
};

/// One request on its way through a handler.
struct call {
  box_state& box;
  request& in;
  settings set;                       // those of this request
  user me = {};                       // whose token came; id 0 where the route asks for none
  std::vector<std::string> ids = {};  // what the route's pattern captured, in order
  journal_entry_ptr entry;

  /// A captured id as a number (the router has checked its form).
  [[nodiscard]] std::int64_t id(std::size_t index) const;

  /// Reads the whole body as text, into the journal too. Throws problem above `most_bytes`.
  [[nodiscard]] std::string body_text(std::size_t most_bytes);

  /// Reads the body as a JSON object. Throws problem 400.
  [[nodiscard]] json_ptr body_object();

  /// Puts a text into the journal as the body.
  void note_body(std::string_view text) const;

  /// Scheme and host of this server as the client knows it, with another host name where one is set.
  [[nodiscard]] std::string origin(const std::string& host_name) const;
};

/// An answer with a JSON body.
[[nodiscard]] response response_json(unsigned status, const json_t* body);

/// Throws 412 when an If-Match header names another etag than the item's.
void call_check_match(const call& of, const item& subject);

/// 304 when If-None-Match names the item's etag; nothing otherwise.
[[nodiscard]] std::optional<response> call_not_modified(const call& of, const item& subject);

/// An active item of the caller's. Throws 404 `not_found` under the name `missing`, or `trashed`.
[[nodiscard]] item call_item(const call& of, item_type type, std::int64_t id, std::string_view missing);

/// Throws `item_name_invalid` or `item_name_too_long`.
void call_check_name(std::string_view name);

/// A time member as Box takes it; nothing when absent. Throws 400.
[[nodiscard]] std::optional<std::int64_t> call_time(const json_t* object, const char* key);

/// The folder id in an object's `parent`. Throws 400 when it is absent and 404 when no such folder is there.
[[nodiscard]] item call_parent(const call& of, const json_t* body);

/// Throws 403 when a file of that size is too large, for a file or for what is left of the storage.
void call_check_quota(const call& of, std::int64_t size);

enum class conflict_place { UPLOAD, CREATE, UPDATE };

/// Throws 409 when a name is taken in a folder by another item than `self` (null: by any), or is reserved.
void call_check_free(const call& of, std::int64_t folder, std::string_view name, const item* self,
                     conflict_place place);

/// Throws 409 `operation_blocked_temporary` when a folder or one above it is locked.
void call_check_unlocked(const call& of, std::int64_t folder);

}  // namespace tarvex::emulator
