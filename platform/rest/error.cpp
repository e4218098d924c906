#include "error.h"

#include "tarvex_common.hpp"
#include "tarvex_dsi_rest.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <iterator>
#include <memory>

namespace tarvex::rest {
namespace {

/// Instance data of this client's errors.
struct client_error {
  std::string message;
  attempt another;
};

void client_error_copy(void* source, void** copy) {
  *copy = nullptr;
  try {
    if (source != nullptr) *copy = new client_error(*static_cast<const client_error*>(source));
  } catch (const std::bad_alloc&) {
    // The copy carries no data, which its readers allow for.
  }
}

void client_error_release(void* data) {
  delete static_cast<client_error*>(data);
}

char* client_error_print(tarvex_object_t* error) {
  const auto* data = static_cast<const client_error*>(tarvex_object_get_instance_data(error));
  return strdup(data == nullptr ? "" : data->message.c_str());
}

const tarvex_object_type_t CLIENT_ERROR_TYPE = {
    .parent_type = &TARVEX_ERROR_TYPE_BASE_DEFINITION,
    .copy_func = client_error_copy,
    .destructor = client_error_release,
    .class_data = reinterpret_cast<void*>(client_error_print),
};

tarvex_result_t put_error(attempt another, std::string message) {
  auto data = std::make_unique<client_error>(client_error{std::move(message), another});
  tarvex_object_t* const error = tarvex_object_construct(&CLIENT_ERROR_TYPE);
  if (error != nullptr) tarvex_object_set_instance_data(error, data.release());
  return tarvex_error_put(error);
}

/// Where the particulars of a transport error come from.
enum class detail_source { none, system, library };

struct transport_row {
  CURLcode code;
  attempt another;
  detail_source detail;
  const char* text;
};

/// What libcurl reports, and what it means here. The last row stands for everything else.
constexpr transport_row TRANSPORT_ROWS[] = {
    {CURLE_COULDNT_RESOLVE_HOST, attempt::may_help, detail_source::none, "The server's name did not resolve"},
    {CURLE_COULDNT_RESOLVE_PROXY, attempt::may_help, detail_source::none, "The proxy's name did not resolve"},
    {CURLE_COULDNT_CONNECT, attempt::may_help, detail_source::system, "The server did not answer"},
    {CURLE_OPERATION_TIMEDOUT, attempt::may_help, detail_source::none, "The server did not answer in time"},
    {CURLE_SEND_ERROR, attempt::may_help, detail_source::library, "The connection broke while sending"},
    {CURLE_RECV_ERROR, attempt::may_help, detail_source::library, "The connection broke while receiving"},
    {CURLE_GOT_NOTHING, attempt::may_help, detail_source::none, "The server closed the connection without an answer"},
    {CURLE_PARTIAL_FILE, attempt::may_help, detail_source::none, "The answer was cut short"},
    {CURLE_SEND_FAIL_REWIND, attempt::may_help, detail_source::none,
     "The connection broke while sending data that cannot be sent again"},
    {CURLE_HTTP2, attempt::may_help, detail_source::none, "The HTTP/2 connection failed"},
    {CURLE_HTTP2_STREAM, attempt::may_help, detail_source::none, "The HTTP/2 stream was cut short"},
    {CURLE_NO_CONNECTION_AVAILABLE, attempt::may_help, detail_source::none, "No connection was free"},
    {CURLE_SSL_CONNECT_ERROR, attempt::may_help, detail_source::library, "The TLS handshake failed"},
    {CURLE_PEER_FAILED_VERIFICATION, attempt::useless, detail_source::library, "The server's certificate was refused"},
    {CURLE_SSL_CACERT_BADFILE, attempt::useless, detail_source::library,
     "The certificate authorities' file cannot be used; check TARVEX_DSI_REST_CA_FILE"},
    {CURLE_URL_MALFORMAT, attempt::useless, detail_source::none, "The URL is not valid"},
    {CURLE_UNSUPPORTED_PROTOCOL, attempt::useless, detail_source::none, "The server's answer is not HTTP"},
    {CURLE_WEIRD_SERVER_REPLY, attempt::useless, detail_source::library, "The server's answer is not valid HTTP"},
    {CURLE_OK, attempt::useless, detail_source::library, "The request failed"},
};

const transport_row& find_row(CURLcode code) {
  const auto* const last = std::end(TRANSPORT_ROWS) - 1;
  return *std::find_if(std::begin(TRANSPORT_ROWS), last, [code](const auto& row) { return row.code == code; });
}

std::string describe(const transport_row& row, long system_errno, const char* detail) {
  const char* text = nullptr;
  if (row.detail == detail_source::system && system_errno != 0) text = strerrordesc_np(static_cast<int>(system_errno));
  if (row.detail == detail_source::library) text = detail;
  if (text == nullptr || *text == '\0') return row.text;
  return std::string(row.text).append(": ").append(text);
}

}  // namespace

tarvex_result_t fail(attempt another, const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  const c_string message(tarvex_common_v_create_string(format, arguments));
  va_end(arguments);
  try {
    return message == nullptr ? out_of_memory() : put_error(another, message.get());
  } catch (...) {
    return out_of_memory();
  }
}

tarvex_result_t fail_transport(CURLcode code, const std::string& peer, long system_errno, const char* detail) noexcept {
  if (code == CURLE_OUT_OF_MEMORY) return out_of_memory();
  try {
    const transport_row& row = find_row(code);
    if (detail == nullptr || *detail == '\0') detail = curl_easy_strerror(code);
    return put_error(row.another, describe(row, system_errno, detail) + " (" + peer + ")");
  } catch (...) {
    return out_of_memory();
  }
}

bool may_help(tarvex_result_t result) noexcept {
  const tarvex_object_t* const error = tarvex_error_peek(result);
  if (tarvex_object_get_type(error) != &CLIENT_ERROR_TYPE) return false;
  const auto* data = static_cast<const client_error*>(tarvex_object_get_instance_data(error));
  return data != nullptr && data->another == attempt::may_help;
}

}  // namespace tarvex::rest

bool tarvex_dsi_rest_error_is_retryable(tarvex_result_t result) {
  return tarvex::rest::may_help(result);
}
