#pragma once

#include "base/json.h"
#include "base/settings.h"
#include "box/box_state.h"
#include "http/message.h"
#include "traffic/problem.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::emulator {

/// What is left to a token with scopes: rights (access_right), and the item it is for (a typed id; empty: all).
struct token_limit {
  unsigned rights = 0;
  std::string resource = {};
};

/// One request on its way through a handler.
struct call {
  box_state& box;
  request& in;
  settings set;                           // those of this request
  user me = {};                           // whose token came; id 0 where the route asks for none
  std::optional<token_limit> limit = {};  // of a token that may do less than its user
  std::vector<std::string> ids = {};      // what the route's pattern captured, in order
  journal_entry_ptr entry;

  /// A captured id as a number (the router has checked its form).
  [[nodiscard]] std::int64_t id(std::size_t index) const;

  /// Reads the whole body as text. Throws problem above `most_bytes`.
  [[nodiscard]] std::string body_text(std::size_t most_bytes);

  /// Reads the body as a JSON object, into the journal too. Throws problem 400.
  [[nodiscard]] json_ptr body_object();

  /// Puts a text into the journal as the body.
  void note_body(std::string_view text) const;

  /// This Box's clock, seconds since 1970: the machine's, shifted by a setting.
  [[nodiscard]] std::int64_t now() const;

  /// Scheme and host of this server as the client knows it, with another host name where one is set.
  [[nodiscard]] std::string origin(const std::string& host_name) const;
};

/// An active item of the caller's, or one of another's that the caller was invited to. Throws 404 `not_found` under the
/// name `missing`, or `trashed`.
[[nodiscard]] item call_item(const call& of, item_type type, std::int64_t id, std::string_view missing);

/// The folder that an object's `parent` names, to put something into. Throws 400 when it is absent, 404 when no such
/// folder is there and 403 without the right.
[[nodiscard]] item call_parent(const call& of, const json_t* body);

/// Throws 400 for a member of an object that is none of `kept` (names with spaces between): what a request asks for is
/// done, or it is refused. Anything but an object has no members.
void call_check_members(const json_t* object, std::string_view kept);

/// A time member as Box takes it; nothing when absent. Throws 400.
[[nodiscard]] std::optional<std::int64_t> call_time(const json_t* object, const char* key);

/// 304 when If-None-Match names the item's etag; nothing otherwise.
[[nodiscard]] std::optional<response> call_not_modified(const call& of, const item& subject);

}  // namespace tarvex::emulator
