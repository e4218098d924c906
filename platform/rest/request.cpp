#include "client.h"
#include "error.h"
#include "exchange.h"
#include "exchange_report.h"
#include "tarvex_dsi_rest.h"

namespace tarvex::rest {
namespace {

/// The stock response callback's record, which also gets what only the client knows; null for other callbacks.
tarvex_dsi_rest_response_arg_t* stock_record(const tarvex_dsi_rest_callbacks_t& callbacks) {
  if (callbacks.response_callback != tarvex_dsi_rest_response) return nullptr;
  return static_cast<tarvex_dsi_rest_response_arg_t*>(callbacks.response_callback_arg);
}

tarvex_result_t perform(const char* method, const char* uri, const tarvex_dsi_rest_key_array_t* query,
                        const tarvex_dsi_rest_key_array_t* header_pairs, const tarvex_dsi_rest_callbacks_t& callbacks) {
  if (method == nullptr || !is_token(method)) return fail(attempt::useless, "The request's method is not valid.");
  target where;
  if (const tarvex_result_t result = make_target(uri, query, where); result != TARVEX_SUCCESS) return result;
  request_headers headers;
  if (const tarvex_result_t result = headers.assign(header_pairs); result != TARVEX_SUCCESS) return result;
  client_lease lease;
  if (const tarvex_result_t result = lease.acquire(); result != TARVEX_SUCCESS) return result;
  exchange_report report(method, where, header_pairs, callbacks.data_read_callback);
  if (const tarvex_result_t refused = report.ask(); refused != TARVEX_SUCCESS) return refused;
  exchange running(callbacks, lease);
  tarvex_result_t result = running.prepare(method, where, headers, header_pairs);
  if (result == TARVEX_SUCCESS) {
    result = running.run();
    report.tell(running);
  }
  if (result != TARVEX_SUCCESS) lease.spoil();
  if (tarvex_dsi_rest_response_arg_t* const record = stock_record(callbacks); record != nullptr) {
    record->request_bytes_uploaded = running.bytes_sent();
    record->response_bytes_downloaded = running.bytes_received();
  }
  return result;
}

void clear_record(tarvex_dsi_rest_response_arg_t* record) {
  if (record == nullptr) return;
  record->response_code = 0;
  record->request_bytes_uploaded = record->response_bytes_downloaded = 0;
}

}  // namespace
}  // namespace tarvex::rest

tarvex_result_t tarvex_dsi_rest_request(const char* method, const char* uri,
                                        const tarvex_dsi_rest_key_array_t* query_parameters,
                                        const tarvex_dsi_rest_key_array_t* headers,
                                        const tarvex_dsi_rest_callbacks_t* callbacks) {
  namespace rest = tarvex::rest;
  static constexpr tarvex_dsi_rest_callbacks_t NO_CALLBACKS = {};
  const tarvex_dsi_rest_callbacks_t& called = callbacks == nullptr ? NO_CALLBACKS : *callbacks;
  rest::clear_record(rest::stock_record(called));
  const tarvex_result_t result =
      rest::guarded([&] { return rest::perform(method, uri, query_parameters, headers, called); });
  if (called.complete_callback == nullptr) return result;
  const tarvex_result_t answer = called.complete_callback(called.complete_callback_arg, result);
  if (answer != result) tarvex_result_release(answer);  // the request's result stands
  return result;
}
