#include "control/control.h"

#include "base/json.h"
#include "base/text.h"
#include "box/reservations.h"
#include "control/fill.h"
#include "traffic/problem.h"

namespace tarvex::emulator {
namespace {

constexpr std::size_t MAX_CONTROL_BYTES = 16UL * 1024 * 1024;
constexpr std::string_view PREFIX = "/_emulator/";

response refused(const std::string& why) {
  const json_ptr body(json_object());
  json_put(body.get(), "error", why);
  return response_json(400, body.get());
}

response done_or(const std::string& refusal) {
  return refusal.empty() ? response_empty(204) : refused(refusal);
}

std::int64_t since_of(const request& in) {
  return number_of(in.parameter("since").value_or("0")).value_or(0);
}

response journal_get(box_state& box, const request& in, const json_t* /*body*/) {
  return response_json(200, box.requests.since(since_of(in)).get());
}

response journal_last(box_state& box, const request& /*in*/, const json_t* /*body*/) {
  const json_ptr answer(json_object());
  json_put(answer.get(), "number", box.requests.last_number());
  return response_json(200, answer.get());
}

response journal_clear(box_state& box, const request& /*in*/, const json_t* /*body*/) {
  box.requests.clear();
  return response_empty(204);
}

response faults_get(box_state& box, const request& /*in*/, const json_t* /*body*/) {
  return response_json(200, box.faults.list().get());
}

response faults_add(box_state& box, const request& /*in*/, const json_t* body) {
  return done_or(box.faults.add(body));
}

response faults_clear(box_state& box, const request& /*in*/, const json_t* /*body*/) {
  box.faults.clear();
  return response_empty(204);
}

response settings_get(box_state& box, const request& /*in*/, const json_t* /*body*/) {
  return response_json(200, settings_json(box.current_settings()).get());
}

response settings_change(box_state& box, const request& /*in*/, const json_t* body) {
  // All or nothing: a wrong name in the middle changes nothing.
  settings changed = box.current_settings();
  const std::string refusal = settings_apply(changed, body);
  if (refusal.empty()) box.change_settings(changed);
  // A seed that is given again, even the same one, begins a run again.
  if (refusal.empty() && json_object_get(body, "seed") != nullptr) box.chances.restart();
  return done_or(refusal);
}

response locks_add(box_state& box, const request& /*in*/, const json_t* body) {
  const auto folder = json_number_at(body, "folder");
  const auto name = json_text_at(body, "name");
  const auto time = json_number_at(body, "for_ms");
  if ((!folder && !name) || !time) return refused("a lock is {\"folder\" or \"name\", \"for_ms\"}");
  if (folder) box.reserved.lock_folder(*folder, *time);
  if (name) box.reserved.reserve_name(*name, *time);
  return response_empty(204);
}

response locks_clear(box_state& box, const request& /*in*/, const json_t* /*body*/) {
  box.reserved.clear();
  return response_empty(204);
}

response fill(box_state& box, const request& /*in*/, const json_t* body) {
  const fill_order order{.user = json_text_at(body, "user").value_or(""),
                         .folder = json_number_at(body, "folder").value_or(ROOT_ID),
                         .count = json_number_at(body, "count").value_or(1),
                         .bytes = json_number_at(body, "bytes").value_or(0),
                         .prefix = json_text_at(body, "prefix").value_or("file-")};
  return done_or(fill_folder(box, order));
}

response reset(box_state& box, const request& /*in*/, const json_t* /*body*/) {
  box.reset();
  return response_empty(204);
}

response apps_add(box_state& box, const request& /*in*/, const json_t* body) {
  return done_or(box.apps.add(body));
}

struct control_row {
  std::string_view method;
  std::string_view path;
  bool has_body;
  response (*handle)(box_state& box, const request& in, const json_t* body);
};

constexpr control_row CONTROL_ROWS[] = {
    {"GET", "journal", false, journal_get},
    {"GET", "journal/last", false, journal_last},
    {"DELETE", "journal", false, journal_clear},
    {"GET", "faults", false, faults_get},
    {"POST", "faults", true, faults_add},
    {"DELETE", "faults", false, faults_clear},
    {"GET", "settings", false, settings_get},
    {"POST", "settings", true, settings_change},
    {"POST", "locks", true, locks_add},
    {"DELETE", "locks", false, locks_clear},
    {"POST", "fill", true, fill},
    {"POST", "apps", true, apps_add},
    {"POST", "reset", false, reset},
};

std::string read_all(body_source& body) {
  std::string text;
  std::string buffer(64UL * 1024, '\0');
  while (const std::size_t got = body.read(buffer)) {
    text.append(buffer, 0, got);
    // Only a broken script sends so much.
    if (text.size() > MAX_CONTROL_BYTES) throw connection_lost();
  }
  return text;
}

}  // namespace

std::optional<response> control_answer(box_state& box, request& in) {
  if (!in.path.starts_with(PREFIX)) return std::nullopt;
  // No token: who can reach these from this machine can read the state on its disk as well.
  if (!in.loopback) return response_empty(403);
  const std::string_view path = std::string_view(in.path).substr(PREFIX.size());
  for (const control_row& candidate : CONTROL_ROWS) {
    if (candidate.method != in.method || candidate.path != path) continue;
    json_ptr body;
    if (candidate.has_body && !(body = json_parse(read_all(*in.body)))) return refused("the body is not JSON");
    try {
      return candidate.handle(box, in, body.get());
    } catch (const std::exception& failure) {
      return refused(failure.what());
    }
  }
  return response_empty(404);
}

std::string control_help() {
  return "Control addresses, answered to clients on this machine only and without a token:\n"
         "  GET /_emulator/journal?since=N   finished requests with a number above N; DELETE forgets them\n"
         "  GET /_emulator/journal/last      {\"number\": of the newest request}\n"
         "  GET /_emulator/faults            all faults with \"matched\" and \"used\"; POST adds; DELETE removes all\n"
         "  POST /_emulator/settings         {name: value, ...}, for all requests from now on; GET shows all, with the "
         "seed\n"
         "  POST /_emulator/locks            {\"folder\": id or \"name\": text, \"for_ms\": time}; DELETE removes all\n"
         "  POST /_emulator/fill             {\"user\", \"folder\", \"count\", \"bytes\", \"prefix\"}: many files at "
         "once\n"
         "  POST /_emulator/apps             registers an app or several; one of a known client_id is replaced\n"
         "  POST /_emulator/reset            empties all accounts, journal and faults; users and tokens stay\n";
}

}  // namespace tarvex::emulator
