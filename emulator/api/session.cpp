#include "api/session.h"

#include "api/access.h"
#include "api/call_check.h"
#include "api/session_common.h"
#include "api/store_file.h"
#include "base/text.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

constexpr std::int64_t MIB = 1024L * 1024;
constexpr std::int64_t MAX_LISTED_PARTS = 1000;

/// Box chooses the size of parts by the size of the file.
std::int64_t part_size_for(const settings& set, std::int64_t file_size) {
  if (set.part_size > 0) return set.part_size;
  if (file_size < 1024 * MIB) return 8 * MIB;
  return file_size < 4096 * MIB ? 32 * MIB : 64 * MIB;
}

std::int64_t size_in(const call& of, const json_t* body) {
  const json_t* value = json_object_get(body, "file_size");
  if (value == nullptr) throw box_problem("missing_file_size");
  const auto size = json_number_at(body, "file_size");
  if (!size || *size < 0) throw box_problem("invalid_file_size");
  if (*size < of.set.chunked_minimum) {
    throw box_problem("file_size_too_small",
                      "File size " + std::to_string(*size) +
                          " less than minimum allowed for this API: " + std::to_string(of.set.chunked_minimum));
  }
  return *size;
}

std::int64_t folder_in(const call& of, const json_t* body) {
  if (json_object_get(body, "folder_id") == nullptr) throw box_problem("missing_destination");
  const auto id = json_number_at(body, "folder_id");
  if (!id) throw box_problem("invalid_folder_id");
  const item folder = call_item(of, item_type::FOLDER, *id, "folder");
  access_require(of, folder, MAY_UPLOAD);
  return folder.id;
}

/// The upload service reads JSON only when it is not called something else.
json_ptr session_body(call& of) {
  const std::string type = lower(of.in.header("Content-Type").value_or(""));
  if (type.starts_with("application/x-www-form-urlencoded")) {
    throw short_problem(400, "request_size_mismatch", "The request body does not fit its Content-Type");
  }
  return of.body_object();
}

/// Independent clients open several sessions for one name at Box; when it refuses a second one is not known.
void check_no_other(const call& of, const upload_session& wanted) {
  const auto other = of.box.sessions.find_open(of.me.id, wanted.folder, wanted.name, of.now());
  if (!other) return;
  json_ptr context(json_object());
  json_put(context.get(), "session", session_json(of, *other));
  throw box_problem("session_conflict", {}, std::move(context));
}

response open_session(const call& of, upload_session session) {
  session.id = upper(random_hex(16));
  session.owner = of.me.id;
  session.part_size = part_size_for(of.set, session.size);
  session.expires_at = of.now() + of.set.session_lifetime_s;
  of.box.sessions.create(session);
  // One file for all parts: each is written at its place, and a commit only has to rename it.
  (void)of.box.contents.open(session.content(), true);
  return response_json(201, session_json(of, session).get());
}

}  // namespace

response session_create(call& of) {
  const json_ptr body = session_body(of);
  transaction hold(of.box.data);
  upload_session session;
  session.folder = folder_in(of, body.get());
  session.size = size_in(of, body.get());
  if (json_object_get(body.get(), "file_name") == nullptr) throw box_problem("missing_file_name");
  session.name = json_text_at(body.get(), "file_name").value_or("");
  call_check_name(session.name);
  store_check(of, {.name = session.name, .folder = session.folder}, session.size);
  if (of.set.session_conflict) check_no_other(of, session);
  response answer = open_session(of, std::move(session));
  hold.commit();
  return answer;
}

response session_create_version(call& of) {
  const json_ptr body = session_body(of);
  transaction hold(of.box.data);
  const item file = call_item(of, item_type::FILE, of.id(0), "item");
  upload_session session;
  session.folder = file.parent;
  session.file = file.id;
  session.size = size_in(of, body.get());
  session.name = json_text_at(body.get(), "file_name").value_or("");
  if (!session.name.empty()) call_check_name(session.name);
  call_check_writable(of, file);
  call_check_match(of, file);
  call_check_quota(of, session.size);
  response answer = open_session(of, std::move(session));
  hold.commit();
  return answer;
}

response session_get(call& of) {
  transaction hold(of.box.data);
  return response_json(200, session_json(of, session_named(of)).get());
}

response session_abort(call& of) {
  transaction hold(of.box.data);
  const upload_session session = session_named(of);
  session_end(of, session);
  hold.commit();
  of.box.contents.remove(session.content());
  return response_empty(204);
}

response session_parts(call& of) {
  transaction hold(of.box.data);
  const auto parts = of.box.sessions.parts(session_named(of));
  const std::int64_t offset = number_of(of.in.parameter("offset").value_or("0")).value_or(-1);
  const std::int64_t limit = number_of(of.in.parameter("limit").value_or("1000")).value_or(-1);
  if (offset < 0) throw box_problem("invalid_offset");
  if (limit < 1) throw box_problem("invalid_limit");
  const std::int64_t shown = std::min(limit, MAX_LISTED_PARTS);
  json_ptr entries(json_array());
  const auto total = static_cast<std::int64_t>(parts.size());
  for (std::int64_t i = offset; i < std::min(total, offset + shown); ++i) {
    json_add(entries.get(), session_part_json(parts[static_cast<std::size_t>(i)]));
  }
  const json_ptr page(json_object());
  json_put(page.get(), "total_count", total);
  json_put(page.get(), "limit", shown);
  json_put(page.get(), "offset", offset);
  json_put(page.get(), "order", json_ptr(json_pack("[{s:s,s:s}]", "by", "part_id", "direction", "ASC")));
  json_put(page.get(), "entries", std::move(entries));
  return response_json(200, page.get());
}

response session_log(call& of) {
  (void)of.body_object();
  return response_empty(204);
}

}  // namespace tarvex::emulator
