#include "api/session_common.h"

#include "base/text.h"
#include "base/times.h"

namespace tarvex::emulator {
namespace {

json_ptr endpoints_json(const call& of, const upload_session& session) {
  const std::string url = of.origin(of.set.upload_host) + "/api/2.0/files/upload_sessions/" + session.id;
  // Absolute, as clients are asked to use these and not to build their own.
  json_ptr endpoints(json_object());
  json_put(endpoints.get(), "list_parts", url + "/parts");
  json_put(endpoints.get(), "commit", url + "/commit");
  json_put(endpoints.get(), "log_event", url + "/log");
  for (const char* plain : {"upload_part", "status", "abort"}) json_put(endpoints.get(), plain, url);
  return endpoints;
}

/// A text of another form answers 400, one of this form that never was a session 404.
bool is_session_id(const std::string& id) {
  return id.size() == 32 && id.find_first_not_of("0123456789ABCDEF") == std::string::npos;
}

}  // namespace

upload_session session_named(const call& of) {
  const std::string& id = of.ids.at(0);
  if (!is_session_id(id)) throw box_problem("invalid_upload_session_id");
  const auto session = of.box.sessions.find(id);
  if (!session) throw not_found_problem("upload_session", id);
  if (session->owner != of.me.id) throw box_problem("forbidden");
  if (session->state == session_state::ENDED || session->expires_at <= of.now()) throw box_problem("session_expired");
  return *session;
}

void session_end(const call& of, const upload_session& session) {
  of.box.sessions.end(session);
  of.box.digests.forget(session.id);
}

std::string session_expected_digest(const call& of) {
  const std::string header = of.in.header("Digest").value_or("");
  // One header may carry several digests (RFC 3230).
  for (const std::string_view each : split(header, ',')) {
    const std::string_view one = trim(each);
    if (!lower(one).starts_with("sha=")) continue;
    const auto digest = base64_decode(one.substr(4));
    if (digest && digest->size() == 20) return *digest;
  }
  throw box_problem("bad_request", "A Digest header with sha=<base64 of the SHA-1> is required");
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

json_ptr session_part_json(const upload_part& part) {
  json_ptr shown(json_object());
  json_put(shown.get(), "part_id", part.id);
  json_put(shown.get(), "offset", part.offset);
  json_put(shown.get(), "size", part.size);
  json_put(shown.get(), "sha1", part.sha1);
  return shown;
}

}  // namespace tarvex::emulator
