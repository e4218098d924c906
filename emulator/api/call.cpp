#include "api/call.h"

#include "api/access.h"
#include "base/text.h"
#include "base/times.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

constexpr std::size_t MAX_JSON_BYTES = 16UL * 1024 * 1024;
constexpr std::size_t MAX_JOURNAL_BYTES = 64UL * 1024;

}  // namespace

std::int64_t call::id(std::size_t index) const {
  return number_of(ids.at(index)).value_or(-1);
}

std::string call::body_text(std::size_t most_bytes) {
  std::string text;
  std::string buffer(64UL * 1024, '\0');
  while (const std::size_t got = in.body->read(buffer)) {
    text.append(buffer, 0, got);
    if (text.size() > most_bytes) throw box_problem("request_entity_too_large");
  }
  return text;
}

// JSON is read whatever the Content-Type says: the content API hardly looks at it.
json_ptr call::body_object() {
  const std::string text = body_text(MAX_JSON_BYTES);
  note_body(text);
  json_ptr body = json_parse(text);
  require(json_is_object(body.get()), "The request body must be a JSON object");
  return body;
}

// Only what a handler notes gets into the journal: the bytes of uploads do not, nor do the secrets of a sign-in.
void call::note_body(std::string_view text) const {
  entry->body = text.substr(0, MAX_JOURNAL_BYTES);
}

std::int64_t call::now() const {
  // Kept within ten thousand years of today, so that no setting makes a sum of times overflow.
  constexpr std::int64_t MOST_S = 10000L * 366 * 86400;
  return time_now() + std::clamp(set.clock_offset_s, -MOST_S, MOST_S);
}

std::string call::origin(const std::string& host_name) const {
  // The port is the one that the client used, which behind a proxy is not the one that we listen on.
  std::string host = in.header("Host").value_or("localhost");
  if (!host_name.empty()) {
    const auto port = host.find(':', host.starts_with('[') ? host.find(']') : 0);
    host = host_name + (port == std::string::npos ? "" : host.substr(port));
  }
  return (in.secure ? "https://" : "http://") + host;
}

item call_item(const call& of, item_type type, std::int64_t id, std::string_view missing) {
  auto found = of.box.items.find(of.me.id, type, id);
  if (!found) {
    found = of.box.items.find_typed(item_typed_id(type, id));
    if (found && access_rights(of, *found) == 0) found.reset();
  }
  if (found && of.limit && access_rights(of, *found) == 0) throw box_problem("insufficient_scope");
  if (!found) throw not_found_problem(missing, item_typed_id(type, id));
  if (found->trashed != item_trash::ACTIVE) throw box_problem("trashed");
  return *found;
}

item call_parent(const call& of, const json_t* body) {
  const json_t* parent = json_object_get(body, "parent");
  require(json_is_object(parent), "'parent' is required");
  const auto id = json_number_at(parent, "id");
  require(id.has_value(), "'parent.id' must be the id of a folder");
  item folder = call_item(of, item_type::FOLDER, *id, "parent");
  access_require(of, folder, MAY_UPLOAD);
  return folder;
}

void call_check_members(const json_t* object, std::string_view kept) {
  const auto names = split(kept, ' ');
  const char* key = nullptr;
  json_t* value = nullptr;
  json_object_foreach(const_cast<json_t*>(object), key, value) {
    if (std::find(names.begin(), names.end(), key) != names.end()) continue;
    throw box_problem("invalid_parameter", std::string("'") + key + "' is not supported by this Box");
  }
}

std::optional<std::int64_t> call_time(const json_t* object, const char* key) {
  const json_t* value = json_object_get(object, key);
  if (value == nullptr || json_is_null(value)) return std::nullopt;
  const auto seconds = time_parse(json_text_at(object, key).value_or(""));
  require(seconds.has_value(), "not a valid rfc 3339 formatted date");
  return seconds;
}

std::optional<response> call_not_modified(const call& of, const item& subject) {
  const auto known = of.in.header("If-None-Match");
  if (!known || *known != std::to_string(subject.etag)) return std::nullopt;
  return response_empty(304);
}

}  // namespace tarvex::emulator
