#include "api/call.h"

#include <algorithm>

#include "api/download_links.h"
#include "api/item_json.h"
#include "api/rate_limiter.h"
#include "api/reservations.h"
#include "api/session_digests.h"
#include "base/names.h"
#include "base/text.h"
#include "base/times.h"

namespace tarvex::emulator {
namespace {

constexpr std::size_t MAX_JSON_BYTES = 16UL * 1024 * 1024;
constexpr std::size_t MAX_JOURNAL_BYTES = 64UL * 1024;

const std::filesystem::path& made(const std::filesystem::path& directory) {
  std::filesystem::create_directories(directory);
  return directory;
}

const std::string& conflict_form(const settings& set, conflict_place place) {
  if (place == conflict_place::UPLOAD) return set.conflict_on_upload;
  return place == conflict_place::CREATE ? set.conflict_on_create : set.conflict_on_update;
}

problem conflict_problem(const call& of, const item& taken, conflict_place place) {
  const std::string& form = conflict_form(of.set, place);
  if (form == "missing") return box_problem("item_name_in_use");
  json_ptr context(json_object());
  json_ptr conflicts = item_view(of).mini(taken);
  if (form == "array") {
    json_ptr list(json_array());
    json_add(list.get(), std::move(conflicts));
    conflicts = std::move(list);
  }
  json_put(context.get(), "conflicts", std::move(conflicts));
  return box_problem("item_name_in_use", {}, std::move(context));
}

}  // namespace

box_state::box_state(const std::filesystem::path& directory, settings initial, const std::string& journal_file,
                     bool print)
    : data((made(directory) / "box.sqlite").string()),
      contents(directory / "content"),
      requests(journal_file, print),
      downloads(std::make_unique<download_links>()),
      digests(std::make_unique<session_digests>()),
      limiter(std::make_unique<rate_limiter>()),
      reserved(std::make_unique<reservations>()),
      settings_(std::move(initial)) {}

box_state::~box_state() = default;

settings box_state::current_settings() const {
  const std::lock_guard lock(mutex_);
  return settings_;
}

void box_state::change_settings(settings changed) {
  const std::lock_guard lock(mutex_);
  settings_ = std::move(changed);
}

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

json_ptr call::body_object() {
  const std::string text = body_text(MAX_JSON_BYTES);
  note_body(text);
  json_ptr body = json_parse(text);
  require(json_is_object(body.get()), "The request body must be a JSON object");
  return body;
}

void call::note_body(std::string_view text) const {
  entry->body = text.substr(0, MAX_JOURNAL_BYTES);
}

std::string call::origin(const std::string& host_name) const {
  std::string host = in.header("Host").value_or("localhost");
  if (!host_name.empty()) {
    const auto port = host.find(':', host.starts_with('[') ? host.find(']') : 0);
    host = host_name + (port == std::string::npos ? "" : host.substr(port));
  }
  return (in.secure ? "https://" : "http://") + host;
}

response response_json(unsigned status, const json_t* body) {
  return response_text(status, "application/json", json_text(body));
}

void call_check_match(const call& of, const item& subject) {
  const auto wanted = of.in.header("If-Match");
  if (wanted && *wanted != std::to_string(subject.etag) && *wanted != "\"" + std::to_string(subject.etag) + "\"") {
    throw box_problem("precondition_failed");
  }
}

std::optional<response> call_not_modified(const call& of, const item& subject) {
  const auto known = of.in.header("If-None-Match");
  if (!known || *known != std::to_string(subject.etag)) return std::nullopt;
  return response_empty(304);
}

item call_item(const call& of, item_type type, std::int64_t id, std::string_view missing) {
  auto found = of.box.items.find(of.me.id, type, id);
  if (!found) throw not_found_problem(missing, item_typed_id(type, id));
  if (found->trashed != item_trash::ACTIVE) throw box_problem("trashed");
  return *found;
}

void call_check_name(std::string_view name) {
  if (const auto refusal = name_refusal(name); !refusal.empty()) throw box_problem(refusal);
}

std::optional<std::int64_t> call_time(const json_t* object, const char* key) {
  const json_t* value = json_object_get(object, key);
  if (value == nullptr || json_is_null(value)) return std::nullopt;
  const auto seconds = time_parse(json_text_at(object, key).value_or(""));
  require(seconds.has_value(), "not a valid rfc 3339 formatted date");
  return seconds;
}

item call_parent(const call& of, const json_t* body) {
  const json_t* parent = json_object_get(body, "parent");
  require(json_is_object(parent), "'parent' is required");
  const auto id = json_number_at(parent, "id");
  require(id.has_value(), "'parent.id' must be the id of a folder");
  return call_item(of, item_type::FOLDER, *id, "parent");
}

void call_check_quota(const call& of, std::int64_t size) {
  if (size > of.set.max_upload_size) throw box_problem("file_size_limit_exceeded");
  const auto owner = of.box.users.find(of.me.id);
  if (!owner || size > of.set.space_amount - owner->used) throw box_problem("storage_limit_exceeded");
}

void call_check_free(const call& of, std::int64_t folder, std::string_view name, const item* self,
                     conflict_place place) {
  if (of.box.reserved->is_reserved(std::string(name))) throw box_problem("name_temporarily_reserved");
  const auto taken = of.box.items.find_named(of.me.id, folder, name);
  if (!taken || (self != nullptr && taken->type == self->type && taken->id == self->id)) return;
  throw conflict_problem(of, *taken, place);
}

void call_check_unlocked(const call& of, std::int64_t folder) {
  for (std::int64_t at = folder; at != NO_PARENT;) {
    if (of.box.reserved->is_locked(at)) throw box_problem("operation_blocked_temporary");
    const auto found = of.box.items.find(of.me.id, item_type::FOLDER, at);
    at = found ? found->parent : NO_PARENT;
  }
}

}  // namespace tarvex::emulator
