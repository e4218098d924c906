#include "error.h"
#include "key_array.h"
#include "tarvex_dsi_rest.h"

#include <strings.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

using tarvex::rest::attempt;
using tarvex::rest::fail;

/// The data callbacks stand for what the client does when it finds their addresses; they are never run.
tarvex_result_t refuse_direct_call() {
  return fail(attempt::useless, "This callback works only inside a request of the REST client.");
}

bool replace_value(tarvex_dsi_rest_key_value_t& wanted, const char* value) {
  char* const copy = strdup(value == nullptr ? "" : value);
  if (copy == nullptr) return false;
  std::free(wanted.value);
  wanted.value = copy;
  return true;
}

}  // namespace

tarvex_result_t tarvex_dsi_rest_response(void* argument, int response_code,
                                         const tarvex_dsi_rest_key_array_t* response_headers) {
  auto* const record = static_cast<tarvex_dsi_rest_response_arg_t*>(argument);
  if (record == nullptr) return fail(attempt::useless, "The response callback has no record to fill.");
  record->response_code = response_code;
  for (const auto& header : tarvex::rest::pairs_of(response_headers)) {
    for (std::size_t index = 0; index < record->desired_headers.count; ++index) {
      auto& wanted = record->desired_headers.key_value[index];
      if (wanted.key == nullptr || strcasecmp(wanted.key, header.key) != 0) continue;
      if (!replace_value(wanted, header.value)) return tarvex::rest::out_of_memory();
    }
  }
  return TARVEX_SUCCESS;
}

tarvex_result_t tarvex_dsi_rest_progress_idle_timeout(void* argument, uint64_t, uint64_t, uint64_t idle_ms) {
  const auto limit_ms = reinterpret_cast<std::uintptr_t>(argument);
  if (limit_ms == 0 || idle_ms < limit_ms) return TARVEX_SUCCESS;
  return fail(attempt::may_help, "The server did not move a byte for %llu ms.",
              static_cast<unsigned long long>(limit_ms));
}

tarvex_result_t tarvex_dsi_rest_write_json(void*, void*, size_t, size_t*) {
  return refuse_direct_call();
}

tarvex_result_t tarvex_dsi_rest_write_block(void*, void*, size_t, size_t*) {
  return refuse_direct_call();
}

tarvex_result_t tarvex_dsi_rest_write_multipart(void*, void*, size_t, size_t*) {
  return refuse_direct_call();
}

tarvex_result_t tarvex_dsi_rest_write_gridftp_op(void*, void*, size_t, size_t*) {
  return refuse_direct_call();
}

tarvex_result_t tarvex_dsi_rest_read_gridftp_op(void*, void*, size_t) {
  return refuse_direct_call();
}

tarvex_result_t tarvex_dsi_rest_read_json(void*, void*, size_t) {
  return refuse_direct_call();
}
