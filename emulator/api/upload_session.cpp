#include "api/upload_session.h"

#include <algorithm>
#include <vector>

#include "api/item_json.h"
#include "api/part_store.h"
#include "api/session_digests.h"
#include "api/storing.h"
#include "base/digest.h"
#include "base/text.h"
#include "base/times.h"

namespace tarvex::emulator {
namespace {

constexpr std::int64_t MIB = 1024L * 1024;
constexpr std::int64_t MAX_LISTED_PARTS = 1000;

std::int64_t part_size_for(const settings& set, std::int64_t file_size) {
  if (set.part_size > 0) return set.part_size;
  if (file_size < 1024 * MIB) return 8 * MIB;
  return file_size < 4096 * MIB ? 32 * MIB : 64 * MIB;
}

json_ptr endpoints_json(const call& of, const upload_session& session) {
  const std::string url = of.origin(of.set.upload_host) + "/api/2.0/files/upload_sessions/" + session.id;
  json_ptr endpoints(json_object());
  json_put(endpoints.get(), "list_parts", url + "/parts");
  json_put(endpoints.get(), "commit", url + "/commit");
  json_put(endpoints.get(), "log_event", url + "/log");
  for (const char* plain : {"upload_part", "status", "abort"}) json_put(endpoints.get(), plain, url);
  return endpoints;
}

json_ptr session_json(const call& of, const upload_session& session) {
  json_ptr shown(json_object());
  json_put(shown.get(), "id", session.id);
  json_put(shown.get(), "type", "upload_session");
  json_put(shown.get(), "session_expires_at", time_text_utc(session.expires_at));
  json_put(shown.get(), "part_size", session.part_size);
  json_put(shown.get(), "total_parts", session.total_parts());
  json_put(shown.get(), "num_parts_processed", static_cast<std::int64_t>(of.box.sessions.parts(session).size()));
  json_put(shown.get(), "session_endpoints", endpoints_json(of, session));
  return shown;
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
  return call_item(of, item_type::FOLDER, *id, "folder").id;
}

/// The upload service reads JSON only when it is not called something else.
json_ptr session_body(call& of) {
  const std::string type = lower(of.in.header("Content-Type").value_or(""));
  if (type.starts_with("application/x-www-form-urlencoded")) {
    throw short_problem(400, "request_size_mismatch", "The request body does not fit its Content-Type");
  }
  return of.body_object();
}

response open_session(const call& of, upload_session session) {
  session.id = random_hex(16);
  std::transform(session.id.begin(), session.id.end(), session.id.begin(),
                 [](char c) { return c >= 'a' ? static_cast<char>(c - 32) : c; });
  session.owner = of.me.id;
  session.part_size = part_size_for(of.set, session.size);
  session.expires_at = time_now() + of.set.session_lifetime_s;
  of.box.sessions.create(session);
  (void)of.box.contents.open(session.content(), true);  // an empty file to put the parts into
  return response_json(201, session_json(of, session).get());
}

bool is_session_id(const std::string& id) {
  return id.size() == 32 && id.find_first_not_of("0123456789ABCDEF") == std::string::npos;
}

void end_session(const call& of, const upload_session& session) {
  of.box.sessions.end(session);
  of.box.digests->forget(session.id);
}

/// "sha=<base64>" in a Digest header, whatever the case of "sha". Throws 400.
std::string digest_in(const call& of) {
  const std::string header = of.in.header("Digest").value_or("");
  for (const std::string_view each : split(header, ',')) {
    const std::string_view one = trim(each);
    if (!lower(one).starts_with("sha=")) continue;
    const auto digest = base64_decode(one.substr(4));
    if (digest && digest->size() == 20) return *digest;
  }
  throw box_problem("bad_request", "A Digest header with sha=<base64 of the SHA-1> is required");
}

/// Whether what a client lists is what the server has. Throws `parts_mismatch`.
void check_parts(const upload_session& session, const std::vector<upload_part>& stored, const json_t* listed) {
  const auto fits = [&](const json_t* one) {
    return std::any_of(stored.begin(), stored.end(), [&](const upload_part& part) {
      return json_text_at(one, "part_id") == part.id && json_number_at(one, "offset") == part.offset &&
             json_number_at(one, "size") == part.size &&
             (json_object_get(one, "sha1") == nullptr || json_text_at(one, "sha1") == part.sha1);
    });
  };
  for (std::size_t i = 0; i < json_array_size(listed); ++i) {
    const json_t* one = json_array_get(listed, i);
    if (!fits(one)) throw box_problem("parts_mismatch", "No matching part found on server for " + json_text(one));
  }
  const auto total = static_cast<std::size_t>(session.total_parts());
  if (json_array_size(listed) != total || stored.size() != total) {
    throw box_problem("parts_mismatch", "The upload has " + std::to_string(total) + " parts, " +
                                            std::to_string(stored.size()) + " are stored and " +
                                            std::to_string(json_array_size(listed)) + " were listed");
  }
}

/// 202 while the parts are being put together, as the settings have it; counts the commit.
std::optional<response> pending(const call& of, const upload_session& session) {
  const std::int64_t now_ms = time_now_us() / 1000;
  of.box.sessions.count_commit(session, now_ms);
  const std::int64_t waited_ms = session.first_commit_ms == 0 ? 0 : now_ms - session.first_commit_ms;
  if (session.commits >= of.set.commit_pending_count && waited_ms >= of.set.commit_pending_ms) return std::nullopt;
  response answer = response_empty(202);
  if (of.set.commit_retry_after_s >= 0) {
    answer.headers.emplace_back("Retry-After", std::to_string(of.set.commit_retry_after_s));
  }
  return answer;
}

file_target commit_target(const upload_session& session, const json_t* body) {
  const json_t* attributes = json_object_get(body, "attributes");
  file_target target{.name = session.name, .folder = session.folder};
  target.content_created_at = call_time(attributes, "content_created_at");
  target.content_modified_at = call_time(attributes, "content_modified_at");
  return target;
}

item store(const call& of, const upload_session& session, const file_target& target, const std::string& sha1) {
  const file_bytes bytes{session.content(), session.size, hex(sha1)};
  if (session.file == 0) {
    (void)call_item(of, item_type::FOLDER, target.folder, "parent");  // for its refusal
    return store_file(of, target, bytes);
  }
  return store_version(of, call_item(of, item_type::FILE, session.file, "item"), target, bytes);
}

}  // namespace

upload_session session_open(const call& of) {
  const std::string& id = of.ids.at(0);
  if (!is_session_id(id)) throw box_problem("invalid_upload_session_id");
  const auto session = of.box.sessions.find(id);
  if (!session) throw not_found_problem("upload_session", id);
  if (session->owner != of.me.id) throw box_problem("forbidden");
  if (session->state == session_state::ENDED || session->expires_at <= time_now()) throw box_problem("session_expired");
  return *session;
}

json_ptr session_part_json(const upload_part& part) {
  json_ptr shown(json_object());
  json_put(shown.get(), "part_id", part.id);
  json_put(shown.get(), "offset", part.offset);
  json_put(shown.get(), "size", part.size);
  json_put(shown.get(), "sha1", part.sha1);
  return shown;
}

response session_create(call& of) {
  const json_ptr body = session_body(of);
  transaction hold(of.box.data);
  upload_session session;
  session.folder = folder_in(of, body.get());
  session.size = size_in(of, body.get());
  if (json_object_get(body.get(), "file_name") == nullptr) throw box_problem("missing_file_name");
  session.name = json_text_at(body.get(), "file_name").value_or("");
  call_check_name(session.name);
  target_check(of, {.name = session.name, .folder = session.folder}, session.size);
  if (of.set.session_conflict) {
    if (const auto other = of.box.sessions.find_open(of.me.id, session.folder, session.name, time_now())) {
      json_ptr context(json_object());
      json_put(context.get(), "session", session_json(of, *other));
      throw box_problem("session_conflict", {}, std::move(context));
    }
  }
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
  call_check_quota(of, session.size);
  response answer = open_session(of, std::move(session));
  hold.commit();
  return answer;
}

response session_put_part(call& of) {
  const upload_part part = part_receive(of, digest_in(of));
  const json_ptr answer(json_object());
  json_put(answer.get(), "part", session_part_json(part));
  return response_json(200, answer.get());
}

response session_get(call& of) {
  transaction hold(of.box.data);
  return response_json(200, session_json(of, session_open(of)).get());
}

response session_abort(call& of) {
  transaction hold(of.box.data);
  const upload_session session = session_open(of);
  end_session(of, session);
  hold.commit();
  of.box.contents.remove(session.content());
  return response_empty(204);
}

response session_parts(call& of) {
  transaction hold(of.box.data);
  const auto parts = of.box.sessions.parts(session_open(of));
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

response session_commit(call& of) {
  const json_ptr body = of.body_object();
  const std::string expected = digest_in(of);
  transaction checking(of.box.data);
  const upload_session session = session_open(of);
  const file_target target = commit_target(session, body.get());
  const json_t* listed = json_object_get(body.get(), "parts");
  require(json_is_array(listed), "'parts' is required");
  check_parts(session, of.box.sessions.parts(session), listed);
  auto not_ready = pending(of, session);
  checking.commit();
  if (not_ready) return std::move(*not_ready);

  const std::string actual = part_whole_digest(of, session);
  if (actual != expected) {
    throw box_problem("digest_mismatch", "File digest was incorrect. Actual: " + base64_encode(actual) +
                                             " Expected: " + base64_encode(expected));
  }
  transaction hold(of.box.data);
  (void)session_open(of);  // another commit may have been faster
  const item made = store(of, session, target, actual);
  end_session(of, session);
  response answer = response_json(201, item_view(of).entries_of_one(made).get());
  hold.commit();
  return answer;
}

response session_log(call& of) {
  (void)of.body_object();
  return response_empty(204);
}

}  // namespace tarvex::emulator
