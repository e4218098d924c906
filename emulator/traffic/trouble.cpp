#include "traffic/trouble.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

/// How bad it is, drawn once for each request and read by the troubles below as they need it.
struct severity {
  bool even = false;  // one of two outcomes
  double share = 0;   // 0 to 1: how far into a body
  std::int64_t wait_s = 1;
};

json_ptr refusal_row(const char* code, const severity& how) {
  return json_ptr(
      json_pack("{s:s,s:{s:s}}", "code", code, "headers", "Retry-After", std::to_string(how.wait_s).c_str()));
}

json_ptr throttled(const request& /*in*/, const severity& how) {
  return refusal_row("rate_limit_exceeded", how);
}

json_ptr unavailable(const request& /*in*/, const severity& how) {
  return refusal_row("unavailable", how);
}

json_ptr failed(const request& /*in*/, const severity& how) {
  return json_ptr(json_pack("{s:s,s:b}", "code", "internal_server_error", "store", static_cast<int>(how.even)));
}

/// In the body of what has one, else before the answer or in the middle of it.
json_ptr cut(const request& in, const severity& how) {
  const auto length = static_cast<double>(in.content_length.value_or(0));
  if (length > 0 && how.even) {
    return json_ptr(json_pack("{s:I}", "cut_request_after", static_cast<json_int_t>(length * how.share)));
  }
  if (in.method == "GET" && how.even) return json_ptr(json_pack("{s:f}", "cut_answer_at", how.share));
  return json_ptr(json_pack("{s:b,s:b}", "cut_before_answer", 1, "store", static_cast<int>(how.share < 0.5)));
}

json_ptr answer_lost(const request& /*in*/, const severity& /*how*/) {
  return json_ptr(json_pack("{s:b,s:b}", "cut_before_answer", 1, "store", 1));
}

struct trouble_row {
  double settings::*probability;
  bool parts_only;
  json_ptr (*make)(const request& in, const severity& how);
};

constexpr trouble_row TROUBLE_ROWS[] = {
    {&settings::throttle_probability, false, throttled},          {&settings::failure_probability, false, failed},
    {&settings::unavailable_probability, false, unavailable},     {&settings::cut_probability, false, cut},
    {&settings::part_answer_lost_probability, true, answer_lost},
};

}  // namespace

std::optional<fault_action> trouble_draw(const settings& set, const request& in, bool is_part, chance_stream& draws) {
  const severity how{draws.hits(0.5), draws.next(), draws.between(1, 3)};
  // One number for all kinds: their probabilities add up, and a new kind does not shift the draws of the others.
  double left = draws.next();
  for (const trouble_row& each : TROUBLE_ROWS) {
    if (each.parts_only && !is_part) continue;
    if (left < set.*each.probability) {
      fault made;
      (void)fault_parse(each.make(in, how).get(), made);  // a row of ours is never refused
      made.action.number = TROUBLE_NUMBER;
      return std::move(made.action);
    }
    left -= set.*each.probability;
  }
  return std::nullopt;
}

}  // namespace tarvex::emulator
