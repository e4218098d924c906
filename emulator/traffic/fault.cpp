#include "traffic/fault.h"

#include "base/settings.h"
#include "base/text.h"
#include "base/times.h"
#include "traffic/chance.h"
#include "traffic/problem.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

constexpr std::string_view MEMBERS =
    "method path query nth times probability after_ms for_ms status code message body text html empty headers store "
    "delay_ms hang piece_bytes piece_delay_ms cut_before_answer cut_answer_after cut_request_after read_delay_ms "
    "cut_answer_at settings comment";

shared_json shared(const json_t* value) {
  return {json_deep_copy(value), [](json_t* held) { json_decref(held); }};
}

/// A misspelt member would make a fault that never strikes, and a test that passes for nothing.
std::string unknown_member(const json_t* row) {
  const auto known = split(MEMBERS, ' ');
  const char* key = nullptr;
  json_t* value = nullptr;
  json_object_foreach(const_cast<json_t*>(row), key, value) {
    if (std::find(known.begin(), known.end(), key) == known.end()) return key;
  }
  return {};
}

bool is_on(const json_t* row, const char* key) {
  return json_is_true(json_object_get(row, key));
}

/// The first of body, html and text that the row has; a code alone keeps Box's error body.
void set_body(const json_t* row, bool has_code, response& answer) {
  if (const json_t* body = json_object_get(row, "body")) {
    answer = response_text(answer.status, "application/json", json_text(body));
  } else if (const auto html = json_text_at(row, "html")) {
    answer = response_text(answer.status, "text/html", *html);
  } else if (const auto text = json_text_at(row, "text")) {
    answer = response_text(answer.status, "text/plain", *text);
  } else if (is_on(row, "empty") || !has_code) {
    answer = response_empty(answer.status);
  }
}

delivery delivery_of(const json_t* row) {
  delivery how;
  how.delay_ms = json_number_at(row, "delay_ms").value_or(0);
  how.hang = is_on(row, "hang");
  how.drop = is_on(row, "cut_before_answer");
  how.cut_after = json_number_at(row, "cut_answer_after");
  how.piece_bytes = json_number_at(row, "piece_bytes").value_or(0);
  how.piece_delay_ms = json_number_at(row, "piece_delay_ms").value_or(0);
  return how;
}

bool by_chance(const fault& candidate, std::int64_t seed) {
  if (candidate.probability >= 1) return true;
  return chance_of(seed, candidate.kind, candidate.matched).hits(candidate.probability);
}

}  // namespace

std::optional<response> fault_action::answer() const {
  const auto status = json_number_at(row.get(), "status");
  const auto code = json_text_at(row.get(), "code");
  if (!status && !code) return std::nullopt;
  response made =
      code ? box_problem(*code, json_text_at(row.get(), "message").value_or("")).answer : response_empty(200);
  if (status) made.status = static_cast<unsigned>(*status);
  set_body(row.get(), code.has_value(), made);
  const char* name = nullptr;
  json_t* value = nullptr;
  json_object_foreach(json_object_get(row.get(), "headers"), name, value) {
    made.headers.emplace_back(name, json_is_string(value) ? json_string_value(value) : json_text(value));
  }
  return made;
}

bool fault_action::carries_out() const {
  const bool has_answer = json_number_at(row.get(), "status") || json_text_at(row.get(), "code");
  return store || (!has_answer && !how.drop && !how.hang);
}

// `matched` also counts what `nth` and `times` then let pass: a test reads from it that a request came at all.
bool fault::take(const request& in, std::int64_t seed) {
  const std::int64_t now = time_now_us();
  if (now < from_us || now >= until_us || !glob_match(method, in.method) || !glob_match(path, in.path) ||
      in.raw_query.find(query) == std::string::npos) {
    return false;
  }
  ++matched;
  if (matched < nth || (times > 0 && used >= times) || !by_chance(*this, seed)) return false;
  ++used;
  return true;
}

std::string fault_parse(const json_t* row, fault& into) {
  if (!json_is_object(row)) return "a fault must be an object";
  if (const std::string name = unknown_member(row); !name.empty()) return "unknown member '" + name + "' in a fault";
  into.method = json_text_at(row, "method").value_or("*");
  into.path = json_text_at(row, "path").value_or("**");
  into.query = json_text_at(row, "query").value_or("");
  into.nth = json_number_at(row, "nth").value_or(1);
  into.times = json_number_at(row, "times").value_or(1);
  into.kind = json_text(row);
  if (const json_t* chance = json_object_get(row, "probability")) into.probability = json_number_value(chance);
  into.from_us = time_now_us() + json_number_at(row, "after_ms").value_or(0) * 1000;
  if (const auto length = json_number_at(row, "for_ms")) into.until_us = into.from_us + *length * 1000;
  into.action.row = shared(row);
  into.action.store = is_on(row, "store");
  into.action.cut_request_after = json_number_at(row, "cut_request_after");
  into.action.read_delay_ms = json_number_at(row, "read_delay_ms").value_or(0);
  if (const json_t* share = json_object_get(row, "cut_answer_at")) {
    into.action.cut_answer_at = std::clamp(json_number_value(share), 0.0, 1.0);
  }
  into.action.how = delivery_of(row);
  if (const json_t* own = json_object_get(row, "settings")) {
    // Tried now, so that a wrong name is refused here and not in the middle of a request.
    settings trial;
    if (std::string refusal = settings_apply(trial, own); !refusal.empty()) return refusal;
    into.action.settings = shared(own);
  }
  return {};
}

std::string fault_help() {
  return "A fault is an object; a file of faults is an array of them. Which requests:\n"
         "  method, path   patterns: '*' stands for any text without, '**' for any text with '/'\n"
         "  query          a text that the query must contain\n"
         "  nth, times     from the nth match on (1), for so many requests (1; 0: all)\n"
         "  probability    0 to 1 (1);  after_ms, for_ms: only then, counted from now\n"
         "What happens, all that is given together:\n"
         "  status, headers, and one of body (JSON), text, html, empty: this answer instead\n"
         "  code, message  the same, as Box's error body of that code\n"
         "  store          carry the request out before that answer (or before the connection is cut)\n"
         "  delay_ms, hang before the answer: so long, or until the client goes away\n"
         "  piece_bytes, piece_delay_ms: the body in pieces with pauses between them\n"
         "  cut_before_answer, cut_answer_after N, cut_request_after N: close the connection there (N: bytes of a "
         "body)\n"
         "  cut_answer_at  the same after that share, 0 to 1, of the answer's body\n"
         "  read_delay_ms  before each read of the request's body\n"
         "  settings       an object of settings for this request alone\n";
}

}  // namespace tarvex::emulator
