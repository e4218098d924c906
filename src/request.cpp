#include "request.h"

#include "trace.h"

#include <array>
#include <cstdint>
#include <cstdlib>

namespace tarvex::box {

namespace {

/// The response record of one attempt, and its headers' values.
class response_record {
 public:
  explicit response_record(bool wants_location) {
    wanted_[0] = pair("Retry-After", nullptr);
    wanted_[1] = pair("Location", nullptr);
    record_.desired_headers = {.count = wants_location ? size_t{2} : size_t{1}, .key_value = wanted_.data()};
  }
  response_record(const response_record&) = delete;
  response_record& operator=(const response_record&) = delete;
  ~response_record() {
    for (auto& header : wanted_) std::free(header.value);
  }
  tarvex_dsi_rest_response_arg_t& record() { return record_; }
  const char* location() const { return wanted_[1].value != nullptr ? wanted_[1].value : ""; }

 private:
  std::array<tarvex_dsi_rest_key_value_t, 2> wanted_{};
  tarvex_dsi_rest_response_arg_t record_{};
};

using pairs = std::vector<tarvex_dsi_rest_key_value_t>;

tarvex_dsi_rest_key_array_t tarvex_l_box_key_array(pairs& list) {
  return {.count = list.size(), .key_value = list.data()};
}

pairs tarvex_l_box_query(const request& call) {
  pairs list;
  for (const auto& parameter : call.query) list.push_back(pair(parameter.key, parameter.value));
  return list;
}

pairs tarvex_l_box_headers(const request& call, const std::string& authorization) {
  pairs list{pair("Authorization", authorization.c_str())};
  for (const auto& header : call.headers) list.push_back(pair(header.key, header.value.c_str()));
  return list;
}

/// What the functions below need to tell a call's own functions.
struct observer {
  const request& call;
  tarvex_dsi_rest_response_arg_t& response;
};

tarvex_result_t tarvex_l_box_on_head(void* argument, int status, const tarvex_dsi_rest_key_array_t* headers) {
  const auto& watch = *static_cast<const observer*>(argument);
  const tarvex_result_t result = tarvex_dsi_rest_response(&watch.response, status, headers);
  if (result != TARVEX_SUCCESS) return result;
  return guarded([&] { return watch.call.on_head(status, *headers); });
}

tarvex_result_t tarvex_l_box_on_progress(void* argument, uint64_t sent, uint64_t received, uint64_t idle_ms) {
  const request& call = static_cast<const observer*>(argument)->call;
  void* const limit = reinterpret_cast<void*>(static_cast<intptr_t>(call.progress_timeout_ms));
  const tarvex_result_t result = tarvex_dsi_rest_progress_idle_timeout(limit, sent, received, idle_ms);
  return result != TARVEX_SUCCESS ? result : guarded([&] { return call.on_progress(); });
}

/// Puts the call's own functions in the places of the stock ones.
void tarvex_l_box_observe(observer& watch, tarvex_dsi_rest_callbacks_t& callbacks) {
  if (watch.call.on_head) {
    callbacks.response_callback = tarvex_l_box_on_head;
    callbacks.response_callback_arg = &watch;
  }
  if (watch.call.on_progress) {
    callbacks.progress_callback = tarvex_l_box_on_progress;
    callbacks.progress_callback_arg = &watch;
  }
}

/// The session's token is left alone where the call has its own: another thread may be about to renew it.
const char* tarvex_l_box_token(const tarvex_box_session_t& box, const request& call) {
  if (call.access_token != nullptr) return call.access_token;
  return box.access_token != nullptr ? box.access_token : "";
}

tarvex_result_t tarvex_l_box_send(const tarvex_box_session_t& box, const request& call,
                                  tarvex_dsi_rest_response_arg_t& response, json_t** document) {
  const char* const token = tarvex_l_box_token(box, call);
  const std::string authorization = (std::string("Bearer ") + token).substr(0, call.authorization_limit);
  pairs query = tarvex_l_box_query(call);
  pairs headers = tarvex_l_box_headers(call, authorization);
  const auto query_array = tarvex_l_box_key_array(query);
  const auto header_array = tarvex_l_box_key_array(headers);
  tarvex_dsi_rest_callbacks_t callbacks = {
      .response_callback = tarvex_dsi_rest_response,
      .response_callback_arg = &response,
      .complete_callback = nullptr,
      .complete_callback_arg = nullptr,
      .data_write_callback = call.write,
      .data_write_callback_arg = call.write_arg,
      .data_read_callback = call.reads_document ? tarvex_dsi_rest_read_json : call.read,
      .data_read_callback_arg = call.reads_document ? document : call.read_arg,
      .progress_callback = tarvex_dsi_rest_progress_idle_timeout,
      // The argument is the number of milliseconds itself.
      .progress_callback_arg = reinterpret_cast<void*>(static_cast<intptr_t>(call.progress_timeout_ms)),
  };
  observer watch = {.call = call, .response = response};
  tarvex_l_box_observe(watch, callbacks);
  return tarvex_dsi_rest_request(call.method, call.url.c_str(), &query_array, &header_array, &callbacks);
}

verdict tarvex_l_box_attempt(tarvex_box_session_t* box, const request& call, unsigned long& retry_after, answer& out) {
  response_record response(call.wants_location);
  json_t* received = nullptr;
  const tarvex_result_t sent = tarvex_l_box_send(*box, call, response.record(), &received);
  out.document.reset(received);
  if (sent != TARVEX_SUCCESS) return {.result = sent, .retryable = tarvex_dsi_rest_error_is_retryable(sent)};
  out.status = response.record().response_code;
  const verdict judged = call.judge(response.record(), received, retry_after);
  if (judged.result == TARVEX_SUCCESS) out.location = response.location();
  return judged;
}

/// A request whose answer was lost may have been carried out, as may one that Box had an accident with or goes on with.
bool tarvex_l_box_leaves_open(int status) {
  return status == 0 || status == STATUS_ACCEPTED || status == STATUS_REQUEST_TIMEOUT || status >= 500;
}

/// What comes before an attempt is sent.
tarvex_result_t tarvex_l_box_prepare(tarvex_box_session_t* box, const request& call, unsigned long retry_after) {
  if (call.before_attempt) call.before_attempt();
  TARVEX_BOX_LOG_DEBUG(call.source.function, "API CALL!\n");
  if (call.renew_token_for != nullptr) {
    const tarvex_result_t result = tarvex_box_token_refresh(box, call.renew_token_for);
    if (result != TARVEX_SUCCESS) return result;
  }
  if (call.delayed) tarvex_i_box_retry_delay(retry_after, call.pacing);
  return TARVEX_SUCCESS;
}

}  // namespace

verdict judge_status(const tarvex_dsi_rest_response_arg_t& response, json_t* document, unsigned long& retry_after) {
  verdict judged;
  if (response.response_code < 400) return judged;
  judged.result = tarvex_box_translate_response(&response, document, &judged.retryable, &retry_after);
  return judged;
}

verdict judge_final(const tarvex_dsi_rest_response_arg_t& response, json_t* document, unsigned long& retry_after) {
  return {.result = judge_status(response, document, retry_after).result, .retryable = false};
}

tarvex_result_t request_perform(tarvex_box_session_t* box, const request& call, answer& out) {
  int own_retries = call.attempts - 1;
  int& retries = call.shared_retries != nullptr ? *call.shared_retries : own_retries;
  unsigned long retry_after = 0;
  bool uncertain = false;
  for (;;) {
    out = {.uncertain = uncertain};
    const tarvex_result_t prepared = tarvex_l_box_prepare(box, call, retry_after);
    if (prepared != TARVEX_SUCCESS) return prepared;
    const verdict judged = tarvex_l_box_attempt(box, call, retry_after, out);
    uncertain = uncertain || tarvex_l_box_leaves_open(out.status);
    out.uncertain = uncertain;
    if (judged.result == TARVEX_SUCCESS) return TARVEX_SUCCESS;
    out = {.status = out.status, .retry_after = retry_after, .uncertain = uncertain};
    if (!judged.retryable || retries <= 0) return judged.result;
    --retries;
    tarvex_result_release(judged.result);
  }
}

}  // namespace tarvex::box
