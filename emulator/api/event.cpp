#include "api/event.h"

#include "api/item_view.h"
#include "base/text.h"
#include "base/times.h"
#include "http/paced_transport.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

constexpr std::int64_t DEFAULT_CHUNK = 100;
constexpr std::int64_t MAX_CHUNK = 500;
constexpr std::int64_t RETRY_TIMEOUT_S = 610;
constexpr std::int64_t LONGEST_WAIT_MS = 60000;
constexpr std::int64_t LOOK_EVERY_MS = 50;

/// Where a client wants to go on. Throws 400.
std::int64_t position_asked(const call& of, std::int64_t user) {
  const std::string asked = of.in.parameter("stream_position").value_or("0");
  if (asked == "now") return of.box.events.position(user);
  const auto position = number_of(asked);
  require(position && *position >= 0, "stream_position is a number or now");
  return *position;
}

}  // namespace

void event_note(const call& of, std::string_view type, const item& subject) {
  const std::string at = time_text(of.now(), of.set.zone_offset_minutes);
  item_view view(of);
  const auto make = [&] {
    json_ptr event(json_object());
    json_put(event.get(), "type", "event");
    json_put(event.get(), "created_by", view.user_json());
    json_put(event.get(), "created_at", at);
    json_put(event.get(), "recorded_at", at);
    json_put(event.get(), "event_type", type);
    json_put(event.get(), "session_id", json_ptr(json_null()));
    json_put(event.get(), "source", view.with_parent(subject));
    return event;
  };
  of.box.events.add(of.me.id, make());
  if (subject.owner != of.me.id) of.box.events.add(subject.owner, make());
}

response event_list(call& of) {
  const std::string stream = of.in.parameter("stream_type").value_or("all");
  require(!stream.starts_with("admin_logs"), "This Box has no events of an enterprise");
  const auto wanted = number_of(of.in.parameter("limit").value_or("")).value_or(DEFAULT_CHUNK);
  std::int64_t position = position_asked(of, of.me.id);
  json_ptr entries = of.box.events.since(of.me.id, position, std::clamp<std::int64_t>(wanted, 1, MAX_CHUNK));
  const json_ptr page(json_object());
  json_put(page.get(), "chunk_size", static_cast<std::int64_t>(json_array_size(entries.get())));
  json_put(page.get(), "next_stream_position", position);
  json_put(page.get(), "entries", std::move(entries));
  return response_json(200, page.get());
}

response event_realtime(call& of) {
  json_ptr server(json_object());
  json_put(server.get(), "type", "realtime_server");
  json_put(server.get(), "url", of.origin({}) + "/events/" + of.box.events.channel_of(of.me.id) + "?stream_type=all");
  json_put(server.get(), "ttl", "10");
  json_put(server.get(), "max_retries", "10");
  json_put(server.get(), "retry_timeout", RETRY_TIMEOUT_S);
  json_ptr entries(json_array());
  json_add(entries.get(), std::move(server));
  const json_ptr page(json_object());
  json_put(page.get(), "chunk_size", 1);
  json_put(page.get(), "entries", std::move(entries));
  return response_json(200, page.get());
}

response event_wait(call& of) {
  const std::int64_t user = of.box.events.user_of(of.ids.at(0));
  if (user == 0) throw box_problem("not_found");
  const std::int64_t position =
      of.in.parameter("stream_position") ? position_asked(of, user) : of.box.events.position(user);
  const std::int64_t end = time_now_us() + LONGEST_WAIT_MS * 1000;
  while (of.box.events.position(user) <= position && time_now_us() < end) {
    // Ends with the client and with the server, which a wait for the log alone would outlive.
    if (!of.in.line->pause(LOOK_EVERY_MS)) throw connection_lost();
  }
  const json_ptr answer(json_object());
  json_put(answer.get(), "message", of.box.events.position(user) > position ? "new_change" : "reconnect");
  return response_json(200, answer.get());
}

}  // namespace tarvex::emulator
