/// \file
/// The seam below a storage plug-in: the REST client tells the program that hosts it of each HTTP exchange, and asks
/// before each request goes out. Plain C.
///
/// The host registers one `const tarvex_exchange_observer_t` under TARVEX_EXCHANGE_OBSERVER_NAME before the first
/// request; none: nothing is done. Both functions run on the thread that makes the request, several at a time when
/// several threads make requests, and must not make requests themselves.
#pragma once

#include "tarvex_common.h"

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// One exchange. Texts are borrowed for the call; null: not there.
typedef struct tarvex_exchange_s {
  const char* host;          ///< of the URL, without port
  const char* path;          ///< of the URL, without query
  const char* method;        ///< "GET"
  const char* request_type;  ///< Content-Type of the request
  const char* digest;        ///< Digest of the request, as it was sent ("sha=" and base64)
  bool authorised;           ///< the request carried an Authorization
  bool brings_content;       ///< the answer's body is handed on as it is, not read as a document
  int status;                ///< of the answer; 0: none came
  bool may_have_arrived;     ///< a request without an answer: the peer may have seen it whole and acted upon it
  bool repeated;             ///< the request was sent again by itself after a connection ended without an answer
  int64_t retry_after_s;     ///< -1: the answer named none
  const char* validator;     ///< ETag of the answer, else its Last-Modified
  const char* answer_type;   ///< Content-Type of the answer
  int64_t answer_length;     ///< Content-Length; -1: none
  int64_t total_length;      ///< of the whole entity, by Content-Range or for a 200 by Content-Length; -1: not known
  uint64_t received_bytes;   ///< of the answer's body
  uint64_t sent_bytes;       ///< of the request's body
  uint64_t elapsed_us;
} tarvex_exchange_t;

typedef struct tarvex_exchange_observer_s {
  void* user_arg;
  /// Asked before a request goes out; of `about` only what the request says is set. Success lets it go; an error is the
  /// request's result, and then nothing is observed. Null: every request goes.
  tarvex_result_t (*gate)(void* user_arg, const tarvex_exchange_t* about);
  /// Told when an exchange is over, whatever came of it. Null: not told.
  void (*observe)(void* user_arg, const tarvex_exchange_t* exchange);
} tarvex_exchange_observer_t;

#define TARVEX_EXCHANGE_OBSERVER_NAME "host"

/// Where the host enters its observer.
TARVEX_API extern tarvex_extension_registry_t tarvex_i_exchange_observer_registry;

#ifdef __cplusplus
}
#endif
