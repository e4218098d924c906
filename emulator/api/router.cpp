#include "api/router.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <thread>

#include "api/rate_limiter.h"
#include "api/users.h"
#include "base/text.h"
#include "base/times.h"
#include "control/control.h"

namespace tarvex::emulator {
namespace {

/// Counts the bytes of a body, and slows or cuts it where a fault says so.
class metered_body final : public body_source {
 public:
  metered_body(body_source& from, const fault_action* fault) : from_(from), fault_(fault) {}

  std::size_t read(std::span<char> out) override {
    if (fault_ != nullptr) {
      if (fault_->read_delay_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(fault_->read_delay_ms));
      if (fault_->cut_request_after) {
        const std::int64_t left = *fault_->cut_request_after - static_cast<std::int64_t>(bytes_);
        if (left <= 0) throw connection_lost();
        out = out.first(std::min(out.size(), static_cast<std::size_t>(left)));
      }
    }
    const std::size_t got = from_.read(out);
    bytes_ += got;
    ended_ = got == 0;
    return got;
  }

  [[nodiscard]] std::uint64_t bytes() const { return bytes_; }
  [[nodiscard]] bool ended() const { return ended_; }

 private:
  body_source& from_;
  const fault_action* fault_;
  std::uint64_t bytes_ = 0;
  bool ended_ = false;
};

enum class fit { NO, YES, BAD_ID };

bool is_digits(std::string_view text) {
  return !text.empty() && text.size() <= 18 && text.find_first_not_of("0123456789") == std::string_view::npos;
}

fit match(const route& candidate, const std::vector<std::string_view>& segments, std::vector<std::string>& ids) {
  const auto pattern = split(candidate.pattern, '/');
  if (pattern.size() != segments.size()) return fit::NO;
  bool bad_id = false;
  ids.clear();
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] == ":id" || pattern[i] == ":any") {
      ids.push_back(percent_decode(segments[i], false));
      bad_id = bad_id || (pattern[i] == ":id" && !is_digits(ids.back()));
    } else if (pattern[i] != segments[i]) {
      return fit::NO;
    }
  }
  return bad_id ? fit::BAD_ID : fit::YES;
}

/// The route of a request. Throws 405 for a known address with another method or an id of a wrong form, 404 otherwise.
const route& find_route(const request& in, std::vector<std::string>& ids) {
  const auto segments = split(in.path, '/');
  const std::string_view method = in.method == "HEAD" ? std::string_view("GET") : std::string_view(in.method);
  bool known_address = false;
  for (const route& candidate : routes()) {
    const fit outcome = match(candidate, segments, ids);
    known_address = known_address || outcome != fit::NO;
    if (outcome == fit::YES && candidate.method == method) return candidate;
  }
  throw known_address ? box_problem("method_not_allowed") : box_problem("not_found");
}

void check_rate(const call& of, route_kind kind) {
  if (!of.set.rate_limit) return;
  const bool is_upload = kind == route_kind::UPLOAD || (kind == route_kind::PART && of.set.rate_limit_parts);
  const std::int64_t wait = of.box.limiter->admit(of.set, of.me.id, is_upload);
  if (wait == 0) return;
  problem refusal = box_problem("rate_limit_exceeded");
  refusal.answer.headers.emplace_back("Retry-After", std::to_string(wait));
  throw refusal;
}

response carry_out(call& of) {
  const route& found = find_route(of.in, of.ids);
  const bool is_counted = found.kind != route_kind::DOWNLOAD && found.kind != route_kind::OPEN;
  if (is_counted) {
    of.me = user_of_request(of);
    check_rate(of, found.kind);
    if (of.set.length_required && of.in.chunked) throw box_problem("length_required");
  }
  response answer = found.handle(of);
  if (found.kind != route_kind::DOWNLOAD) answer.how.delay_ms = of.set.latency_ms;
  return answer;
}

/// Runs the handler; every refusal and failure becomes an answer.
response answer_of(call& of) {
  try {
    return carry_out(of);
  } catch (problem& refusal) {
    refusal.answer.how.delay_ms = of.set.latency_ms;
    return std::move(refusal.answer);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s %s: %s\n", of.in.method.c_str(), of.in.path.c_str(), failure.what());
    return box_problem("internal_server_error").answer;
  }
}

response with_fault(call& of, fault_action* fault) {
  if (fault == nullptr) return answer_of(of);
  response answer;
  if (fault->carries_out()) answer = answer_of(of);
  const std::int64_t latency = std::max(answer.how.delay_ms, fault->how.delay_ms);
  if (fault->answer) answer = std::move(*fault->answer);
  answer.how = fault->how;
  answer.how.delay_ms = latency;
  return answer;
}

bool is_download(const request& in) {
  return in.path.starts_with("/d/");
}

void add_usual_headers(const call& of, response& answer) {
  answer.headers.emplace_back("Date", time_text_http(time_now()));
  if (is_download(of.in)) return;
  answer.headers.emplace_back("Strict-Transport-Security", "max-age=31536000");
  answer.headers.emplace_back("Cache-Control", "no-cache, no-store");
  answer.headers.emplace_back("Vary", "Accept-Encoding");
  answer.headers.emplace_back("BOX-REQUEST-ID", random_hex(16));
  answer.how.chunked = of.set.chunked_answers && !answer.body.empty();
}

}  // namespace

response router_answer(box_state& box, request& in) {
  if (control_is_for(in)) return control_answer(box, in);
  call of{.box = box, .in = in, .set = box.current_settings(), .entry = box.requests.begin(in)};
  std::optional<fault_action> fault = box.faults.match(in);
  fault_action* active = fault ? &*fault : nullptr;
  if (active != nullptr && active->settings) {
    (void)settings_apply(of.set, active->settings.get());  // checked when the fault was added
  }
  metered_body body(*in.body, active);
  in.body = &body;
  const auto finish = [&](unsigned status) {
    of.entry->body_bytes = in.content_length.value_or(body.bytes());
    of.entry->status = status;
    of.entry->fault = active != nullptr ? active->number : 0;
    box.requests.finish(of.entry);
  };
  try {
    response answer = with_fault(of, active);
    add_usual_headers(of, answer);
    const bool has_rest = (in.chunked || in.content_length.value_or(0) > body.bytes()) && !body.ended();
    if (has_rest && of.set.unread_body == "close") answer.close = true;
    finish(answer.how.drop || answer.how.hang ? 0 : answer.status);
    return answer;
  } catch (const connection_lost&) {
    finish(0);
    throw;
  }
}

}  // namespace tarvex::emulator
