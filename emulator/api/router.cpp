#include "api/router.h"

#include "api/authorisation.h"
#include "api/oauth.h"
#include "api/route.h"
#include "base/text.h"
#include "base/times.h"
#include "traffic/metered_body.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <optional>
#include <utility>

namespace tarvex::emulator {
namespace {

bool needs_token(route_purpose purpose) {
  return purpose != route_purpose::DOWNLOAD && purpose != route_purpose::SIGN_IN;
}

void check_rate(const call& of, route_purpose purpose) {
  if (!of.set.rate_limit) return;
  const bool is_upload =
      purpose == route_purpose::UPLOAD || (purpose == route_purpose::PART && of.set.rate_limit_parts);
  const std::int64_t wait = of.box.limiter.admit(of.set, of.me.id, is_upload);
  if (wait == 0) return;
  problem refusal = box_problem("rate_limit_exceeded");
  refusal.answer.headers.emplace_back("Retry-After", std::to_string(wait));
  throw refusal;
}

response carry_out(call& of, const route_found& found) {
  if (found.to == nullptr) throw box_problem(found.known_address ? "method_not_allowed" : "not_found");
  if (needs_token(found.purpose)) {
    of.me = authorised_user(of);
    check_rate(of, found.purpose);
    if (of.set.length_required && of.in.chunked) throw box_problem("length_required");
  }
  // The address itself is the permission there, but some clients send their token along.
  if (found.purpose == route_purpose::DOWNLOAD) authorisation_note(of);
  return found.to->handle(of);
}

/// Runs the handler; every refusal and failure becomes an answer.
response answer_of(call& of, const route_found& found) {
  try {
    return carry_out(of, found);
  } catch (problem& refusal) {
    return std::move(refusal.answer);
  } catch (const std::exception& failure) {
    // What went wrong is for whoever runs this program; the client gets what Box would show.
    std::fprintf(stderr, "%s %s: %s\n", of.in.method.c_str(), of.in.path.c_str(), failure.what());
    return box_problem("internal_server_error").answer;
  }
}

response delayed_answer(call& of, const route_found& found) {
  response answer = answer_of(of, found);
  if (found.purpose != route_purpose::DOWNLOAD) answer.how.delay_ms = of.set.latency_ms;
  return answer;
}

/// What a fault makes of the true answer. Its delivery replaces that of the answer, but for the longer of two delays.
response with_fault(call& of, const route_found& found, const fault_action& fault) {
  response answer;
  if (fault.carries_out()) {
    answer = delayed_answer(of, found);
  } else if (found.to != nullptr && found.to->handle == oauth_token) {
    oauth_note_grant(of);  // what a refused client asks for is counted by tests, too
  }
  const std::int64_t delay_ms = std::max(answer.how.delay_ms, fault.how.delay_ms);
  if (auto other = fault.answer()) answer = std::move(*other);
  answer.how = fault.how;
  answer.how.delay_ms = delay_ms;
  return answer;
}

void add_usual_headers(const call& of, route_purpose purpose, response& answer) {
  answer.headers.emplace_back("Date", time_text_http(of.now()));
  if (purpose == route_purpose::DOWNLOAD) return;
  answer.headers.emplace_back("Strict-Transport-Security", "max-age=31536000");
  answer.headers.emplace_back("Cache-Control", "no-cache, no-store");
  answer.headers.emplace_back("Vary", "Accept-Encoding");
  answer.headers.emplace_back("BOX-REQUEST-ID", random_hex(16));
  answer.how.chunked = of.set.chunked_answers && !answer.body.empty();
}

/// Enters the end of a request in the journal; 0: no answer is sent.
void finish(const call& of, const metered_body& body, const fault_action* fault, unsigned status) {
  of.entry->body_bytes = of.in.content_length.value_or(body.bytes());
  of.entry->status = status;
  of.entry->fault = fault != nullptr ? fault->number : 0;
  of.box.requests.finish(of.entry);
}

}  // namespace

response router_answer(box_state& box, request& in) {
  // Found before anything is done, as a fault in place of an answer has the headers and delays of the address, too.
  route_found found = route_find(in);
  call of{.box = box, .in = in, .set = box.current_settings(), .entry = box.requests.begin(in)};
  of.ids = std::move(found.ids);
  const std::optional<fault_action> matched = box.faults.match(in);
  const fault_action* fault = matched ? &*matched : nullptr;
  if (fault != nullptr && fault->settings) {
    (void)settings_apply(of.set, fault->settings.get());  // checked when the fault was added
  }
  metered_body body(*in.body, fault);
  in.body = &body;
  try {
    response answer = fault != nullptr ? with_fault(of, found, *fault) : delayed_answer(of, found);
    add_usual_headers(of, found.purpose, answer);
    // Box's early refusals come with the body unread: some of its servers read on, some close, and clients meet both.
    const bool has_rest = (in.chunked || in.content_length.value_or(0) > body.bytes()) && !body.ended();
    if (has_rest && of.set.unread_body == "close") answer.close = true;
    finish(of, body, fault, answer.how.drop || answer.how.hang ? 0 : answer.status);
    return answer;
  } catch (const connection_lost&) {
    finish(of, body, fault, 0);
    throw;
  }
}

}  // namespace tarvex::emulator
