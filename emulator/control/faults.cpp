#include "control/faults.h"

#include <random>

#include "api/problem.h"
#include "base/settings.h"
#include "base/times.h"

namespace tarvex::emulator {
namespace {

constexpr const char* KEYS[] = {"method",
                                "path",
                                "query",
                                "nth",
                                "times",
                                "probability",
                                "after_ms",
                                "for_ms",
                                "status",
                                "code",
                                "message",
                                "body",
                                "text",
                                "html",
                                "empty",
                                "headers",
                                "store",
                                "delay_ms",
                                "hang",
                                "piece_bytes",
                                "piece_delay_ms",
                                "cut_before_answer",
                                "cut_answer_after",
                                "cut_request_after",
                                "read_delay_ms",
                                "settings",
                                "comment"};

std::shared_ptr<json_t> shared(const json_t* value) {
  return {json_deep_copy(value), [](json_t* held) { json_decref(held); }};
}

std::string unknown_key(const json_t* row) {
  const char* key = nullptr;
  json_t* value = nullptr;
  json_object_foreach(const_cast<json_t*>(row), key, value) {
    bool known = false;
    for (const char* candidate : KEYS) known = known || std::string_view(candidate) == key;
    if (!known) return key;
  }
  return {};
}

bool is_on(const json_t* row, const char* key) {
  return json_is_true(json_object_get(row, key));
}

/// The answer that the row spells out; nothing when it has none.
std::optional<response> answer_of(const json_t* row) {
  const auto status = json_number_at(row, "status");
  const auto code = json_text_at(row, "code");
  if (!status && !code) return std::nullopt;
  response answer = code ? box_problem(*code, json_text_at(row, "message").value_or("")).answer : response_empty(200);
  if (status) answer.status = static_cast<unsigned>(*status);
  if (const json_t* body = json_object_get(row, "body")) {
    answer = response_text(answer.status, "application/json", json_text(body));
  } else if (const auto html = json_text_at(row, "html")) {
    answer = response_text(answer.status, "text/html", *html);
  } else if (const auto text = json_text_at(row, "text")) {
    answer = response_text(answer.status, "text/plain", *text);
  } else if (is_on(row, "empty") || !code) {
    answer = response_empty(answer.status);
  }
  const char* name = nullptr;
  json_t* value = nullptr;
  json_object_foreach(json_object_get(row, "headers"), name, value) {
    answer.headers.emplace_back(name, json_is_string(value) ? json_string_value(value) : json_text(value));
  }
  return answer;
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

bool by_chance(double probability) {
  static thread_local std::mt19937_64 source{std::random_device{}()};
  return probability >= 1 || std::uniform_real_distribution<>(0, 1)(source) < probability;
}

}  // namespace

std::string fault_list::parse(const json_t* row, fault& into) {
  if (!json_is_object(row)) return "a fault must be an object";
  if (const std::string key = unknown_key(row); !key.empty()) return "unknown member '" + key + "' in a fault";
  into.method = json_text_at(row, "method").value_or("*");
  into.path = json_text_at(row, "path").value_or("**");
  into.query = json_text_at(row, "query").value_or("");
  into.nth = json_number_at(row, "nth").value_or(1);
  into.times = json_number_at(row, "times").value_or(1);
  if (const json_t* chance = json_object_get(row, "probability")) into.probability = json_number_value(chance);
  into.from_us = time_now_us() + json_number_at(row, "after_ms").value_or(0) * 1000;
  if (const auto length = json_number_at(row, "for_ms")) into.until_us = into.from_us + *length * 1000;
  into.action.answer = answer_of(row);
  into.action.store = is_on(row, "store");
  into.action.cut_request_after = json_number_at(row, "cut_request_after");
  into.action.read_delay_ms = json_number_at(row, "read_delay_ms").value_or(0);
  into.action.how = delivery_of(row);
  if (const json_t* own = json_object_get(row, "settings")) {
    settings trial;
    if (std::string refusal = settings_apply(trial, own); !refusal.empty()) return refusal;
    into.action.settings = shared(own);
  }
  into.row = shared(row);
  return {};
}

std::string fault_list::add(const json_t* rows) {
  std::vector<fault> added;
  const std::size_t count = json_is_array(rows) ? json_array_size(rows) : 1;
  for (std::size_t i = 0; i < count; ++i) {
    if (std::string refusal = parse(json_is_array(rows) ? json_array_get(rows, i) : rows, added.emplace_back());
        !refusal.empty()) {
      return refusal;
    }
  }
  const std::lock_guard lock(mutex_);
  for (fault& row : added) {
    row.action.number = next_++;
    faults_.push_back(std::move(row));
  }
  return {};
}

bool fault_list::is_due(fault& candidate, const request& in) {
  const std::int64_t now = time_now_us();
  if (now < candidate.from_us || now >= candidate.until_us || !glob_match(candidate.method, in.method) ||
      !glob_match(candidate.path, in.path) || in.raw_query.find(candidate.query) == std::string::npos) {
    return false;
  }
  ++candidate.matched;
  if (candidate.matched < candidate.nth || (candidate.times > 0 && candidate.used >= candidate.times)) return false;
  return by_chance(candidate.probability);
}

std::optional<fault_action> fault_list::match(const request& in) {
  const std::lock_guard lock(mutex_);
  for (fault& candidate : faults_) {
    if (!is_due(candidate, in)) continue;
    ++candidate.used;
    fault_action action;
    action.number = candidate.action.number;
    action.store = candidate.action.store;
    action.cut_request_after = candidate.action.cut_request_after;
    action.read_delay_ms = candidate.action.read_delay_ms;
    action.how = candidate.action.how;
    action.settings = candidate.action.settings;
    action.answer = answer_of(candidate.row.get());  // made anew: an answer is owned by its request
    return action;
  }
  return std::nullopt;
}

json_ptr fault_list::list() const {
  const std::lock_guard lock(mutex_);
  json_ptr rows(json_array());
  for (const fault& each : faults_) {
    json_ptr row(json_deep_copy(each.row.get()));
    json_put(row.get(), "number", each.action.number);
    json_put(row.get(), "matched", each.matched);
    json_put(row.get(), "used", each.used);
    json_add(rows.get(), std::move(row));
  }
  return rows;
}

void fault_list::clear() {
  const std::lock_guard lock(mutex_);
  faults_.clear();
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
         "  read_delay_ms  before each read of the request's body\n"
         "  settings       an object of settings for this request alone\n";
}

}  // namespace tarvex::emulator
