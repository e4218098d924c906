#include "api/router.h"

#include "api/authorisation.h"
#include "api/oauth.h"
#include "api/route.h"
#include "api/route_traffic.h"
#include "base/text.h"
#include "base/times.h"
#include "http/paced_transport.h"
#include "traffic/metered_body.h"
#include "traffic/trouble.h"

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
  const bool is_upload =
      purpose == route_purpose::UPLOAD || (purpose == route_purpose::PART && of.set.account_parts_are_uploads);
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
    // What shows more than single items is not for tokens of single scopes.
    if (of.limit && found.to->whole_account) throw box_problem("insufficient_scope");
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

/// What a fault makes of the true answer.
response with_fault(call& of, const route_found& found, const fault_action& fault) {
  response answer;
  if (fault.carries_out()) {
    answer = answer_of(of, found);
  } else if (found.to != nullptr && found.to->handle == oauth_token) {
    oauth_note_grant(of);  // what a refused client asks for is counted by tests, too
  }
  if (auto other = fault.answer()) answer = std::move(*other);
  answer.how = fault.how;
  if (fault.cut_answer_at) {
    answer.how.cut_after =
        static_cast<std::int64_t>(*fault.cut_answer_at * static_cast<double>(response_length(answer)));
  }
  return answer;
}

/// What strikes a request: the first scripted fault that is due, or else what the probabilities draw.
std::optional<fault_action> fault_of(const call& of, const route_found& found, chance_stream& draws) {
  auto trouble = trouble_draw(of.set, of.in, found.purpose == route_purpose::PART, draws);
  if (auto scripted = of.box.faults.match(of.in, of.set.seed)) return scripted;
  if (!trouble || found.to == nullptr || !route_has_trouble(of.set, found.purpose)) return std::nullopt;
  return trouble;
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
  chance_stream draws = box.chances.of(of.set.seed, route_kind(found, in));
  const std::optional<fault_action> matched = fault_of(of, found, draws);
  const fault_action* fault = matched ? &*matched : nullptr;
  if (fault != nullptr && fault->settings) {
    (void)settings_apply(of.set, fault->settings.get());  // checked when the fault was added
  }
  if (in.line != nullptr) in.line->set_rate(route_rate(of.set, found.purpose));
  metered_body body(*in.body, fault);
  in.body = &body;
  try {
    response answer = fault != nullptr ? with_fault(of, found, *fault) : answer_of(of, found);
    // Of two delays the longer one.
    answer.how.delay_ms = std::max(answer.how.delay_ms, route_latency_ms(of.set, found.purpose, draws));
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
