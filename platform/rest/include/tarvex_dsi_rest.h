/// \file
/// The REST client: one blocking HTTP request per call, with callbacks for what goes out and what comes in. Plain C.
///
/// Every thread has a client of its own, kept for its life: connections, TLS sessions and HTTP/2 are reused from one
/// request to the next. Redirects are never followed. Only the http and https schemes are spoken, and https answers
/// are verified against the system's certificate authorities, or those in the file named by the environment variable
/// `TARVEX_DSI_REST_CA_FILE`. Requests to hosts other than this one go through the proxy in `TARVEX_DSI_REST_PROXY`
/// ("http://proxy:3128"; unset or empty: directly); other variables of the environment name no proxy. Both are read at
/// activation.
///
/// The host program is asked before each request and told of its outcome: see tarvex_exchange.h.
///
/// Nothing here writes header values or bodies to a log.
#pragma once

#include "tarvex_common.h"
#include "tarvex_gridftp_server.h"

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// The REST client's module; activate it before the first request.
TARVEX_API extern const tarvex_module_descriptor_t tarvex_i_dsi_rest_module;

/* ---- Records -------------------------------------------------------------------------------------------------- */

typedef struct tarvex_dsi_rest_key_value_s {
  char* key;
  char* value;  ///< null: absent
} tarvex_dsi_rest_key_value_t;

/// An ordered list of pairs. In queries and request headers everything is borrowed for the call.
typedef struct tarvex_dsi_rest_key_array_s {
  size_t count;
  tarvex_dsi_rest_key_value_t* key_value;
} tarvex_dsi_rest_key_array_t;

/// Argument of `tarvex_dsi_rest_response`: what a caller wants to know of the answer.
typedef struct tarvex_dsi_rest_response_arg_s {
  int response_code;  ///< HTTP status; 0 when no answer came
  /// The caller sets the keys (matched without regard to case) and clears the values; values of headers that came are
  /// allocated copies, the caller's to free. A value that is set already is freed before it is replaced.
  tarvex_dsi_rest_key_array_t desired_headers;
  uint64_t request_bytes_uploaded;     ///< body bytes sent
  uint64_t response_bytes_downloaded;  ///< body bytes received
} tarvex_dsi_rest_response_arg_t;

/* ---- Callbacks ------------------------------------------------------------------------------------------------ */

/// Called once per request, when status line and headers of the final answer are in, before any of its body; and, for
/// the stock callback only, once more after the body with the byte counts. A failure ends the request with it.
typedef tarvex_result_t (*tarvex_dsi_rest_response_t)(void* argument, int response_code,
                                                      const tarvex_dsi_rest_key_array_t* response_headers);

/// Called exactly once, last, with the result that the request returns.
typedef tarvex_result_t (*tarvex_dsi_rest_complete_t)(void* argument, tarvex_result_t result);

/// Asks for the next piece of the request body: up to `length` bytes into `buffer`; `*amount` takes how many were
/// written, 0 means the end. A failure ends the request with it.
typedef tarvex_result_t (*tarvex_dsi_rest_write_t)(void* argument, void* buffer, size_t length, size_t* amount);

/// Hands over the next piece of the answer's body; borrowed for the call. A failure ends the request with it.
typedef tarvex_result_t (*tarvex_dsi_rest_read_t)(void* argument, void* buffer, size_t length);

/// Called several times a second while a request runs. `idle_ms`: milliseconds since a byte last moved in either
/// direction (time spent inside the data callbacks does not count). A failure ends the request with it.
typedef tarvex_result_t (*tarvex_dsi_rest_progress_t)(void* argument, uint64_t bytes_sent, uint64_t bytes_received,
                                                      uint64_t idle_ms);

/// What a request calls; every function may be null. Without a `data_write_callback` no body is sent; without a
/// `data_read_callback` the answer's body is read and dropped.
typedef struct tarvex_dsi_rest_callbacks_s {
  tarvex_dsi_rest_response_t response_callback;
  void* response_callback_arg;
  tarvex_dsi_rest_complete_t complete_callback;
  void* complete_callback_arg;
  tarvex_dsi_rest_write_t data_write_callback;
  void* data_write_callback_arg;
  tarvex_dsi_rest_read_t data_read_callback;
  void* data_read_callback_arg;
  tarvex_dsi_rest_progress_t progress_callback;
  void* progress_callback_arg;
} tarvex_dsi_rest_callbacks_t;

/* ---- Requests ------------------------------------------------------------------------------------------------- */

/// Makes one HTTP request and blocks until it is over.
///
/// \param method            "GET", "POST", "PUT", "DELETE", "OPTIONS", ...
/// \param uri               absolute http or https URL
/// \param query_parameters  appended to the URL in their order, keys and values percent-encoded (RFC 3986 unreserved
///                          characters stand as they are); a pair without a value is left out; null: none
/// \param headers           sent in their order; an empty value keeps the client from sending that header at all; a
///                          "Content-Length" fixes the body's length and turns chunked coding off; null: none
/// \param callbacks         null: none
/// \return `TARVEX_SUCCESS` when an HTTP answer came, whatever its status, and was read to its end; otherwise the
/// error of the transport or of the callback that failed. The answer's headers that a caller wants reach it through
/// the response callback also when the body then breaks off.
TARVEX_API tarvex_result_t tarvex_dsi_rest_request(const char* method, const char* uri,
                                                   const tarvex_dsi_rest_key_array_t* query_parameters,
                                                   const tarvex_dsi_rest_key_array_t* headers,
                                                   const tarvex_dsi_rest_callbacks_t* callbacks) TARVEX_NODISCARD;

/// Whether a new attempt may cure a failed request: true for connections refused, reset, timed out or cut short and
/// for names that did not resolve for now; false for a bad URL, a refused certificate, a cancelled request, a failed
/// callback, and anything that is no transport error of this client.
TARVEX_API bool tarvex_dsi_rest_error_is_retryable(tarvex_result_t result);

/* ---- Stock callbacks ------------------------------------------------------------------------------------------ */

/// Response callback: fills a `tarvex_dsi_rest_response_arg_t`.
TARVEX_API tarvex_result_t tarvex_dsi_rest_response(void* argument, int response_code,
                                                    const tarvex_dsi_rest_key_array_t* response_headers);

/// Progress callback: gives up after a time without progress. The argument is the number of milliseconds itself, cast
/// to a pointer; 0 means never. The error is a retryable time-out.
TARVEX_API tarvex_result_t tarvex_dsi_rest_progress_idle_timeout(void* argument, uint64_t bytes_sent,
                                                                 uint64_t bytes_received, uint64_t idle_ms);

// The data callbacks below keep state of their own for the length of a request. The client knows them by their
// addresses and sets that state up; called by anyone else they fail.

/// Body from a JSON document: the argument is a `json_t*` (jansson), borrowed; sent compactly, in the order in which
/// its members were entered, with its length.
TARVEX_API tarvex_result_t tarvex_dsi_rest_write_json(void* argument, void* buffer, size_t length, size_t* amount);

/// Argument of `tarvex_dsi_rest_write_block`; borrowed for the request.
typedef struct tarvex_dsi_rest_write_block_arg_s {
  const void* block_data;
  size_t block_len;
} tarvex_dsi_rest_write_block_arg_t;

/// Body from memory, sent with its length (RFC 9112 section 6.2).
TARVEX_API tarvex_result_t tarvex_dsi_rest_write_block(void* argument, void* buffer, size_t length, size_t* amount);

/// One part of a multipart body: headers, then what its writer yields (one of the stock writers, or a writer of the
/// caller's own).
typedef struct tarvex_dsi_rest_write_part_s {
  tarvex_dsi_rest_key_array_t header;
  tarvex_dsi_rest_write_t data_write_callback;
  void* data_write_callback_arg;
} tarvex_dsi_rest_write_part_t;

/// Argument of `tarvex_dsi_rest_write_multipart`; borrowed for the request.
typedef struct tarvex_dsi_rest_write_multipart_arg_s {
  size_t num_parts;
  tarvex_dsi_rest_write_part_t* parts;
} tarvex_dsi_rest_write_multipart_arg_t;

/// Multipart body (RFC 2046 section 5.1) with the boundary that the request's own "Content-Type" header names; without
/// one the request fails. Sent with its length when the length of every part is known (blocks, JSON, an operation with
/// a known length), else in chunked coding.
TARVEX_API tarvex_result_t tarvex_dsi_rest_write_multipart(void* argument, void* buffer, size_t length, size_t* amount);

/// Argument of the two GridFTP callbacks; `eof` is written by them.
typedef struct tarvex_dsi_rest_gridftp_op_arg_s {
  tarvex_gfs_operation_t op;
  tarvex_off_t offset;  ///< file offset of the first byte
  tarvex_off_t length;  ///< bytes; -1: to the end
  bool eof;             ///< set once the data are over
} tarvex_dsi_rest_gridftp_op_arg_t;

/// Body from the client's data channel: registers reads with the operation, reports what arrived with
/// `tarvex_gridftp_server_update_bytes_recvd`, ends at the end of data. A read that fails ends the request with its
/// error, so that a truncated body never looks complete. Keeps a small bounded number of buffers.
TARVEX_API tarvex_result_t tarvex_dsi_rest_write_gridftp_op(void* argument, void* buffer, size_t length,
                                                            size_t* amount);

/// The answer's body to the client's data channel: registers writes with the operation from `offset` on, with a small
/// bounded number of buffers in flight, and waits when the client is slow. Never writes beyond `offset + length`
/// (more than that in an answer ends the request with success once the range is full), and never writes the body of an
/// answer of 300 or above. All writes are over when the request returns.
TARVEX_API tarvex_result_t tarvex_dsi_rest_read_gridftp_op(void* argument, void* buffer, size_t length);

/// Forgets what is remembered of an operation that the callback above wrote to: which version of a file it got. All its
/// answers must be of one, by validator and total length; one that differs ends its request with 451 FILE_CHANGED.
/// Whoever used the callback calls this before the operation is finished.
TARVEX_API void tarvex_dsi_rest_operation_over(tarvex_gfs_operation_t op);

/// A JSON document from the answer: the argument is a `json_t**` that holds null before the call. It gets a new
/// reference, the caller's, or stays null when the body is empty or no JSON (an HTML error page). Bodies above
/// 64 MiB end the request with an error. Values that are equal may be one value with several references: a caller that
/// wants to modify some of the document copies it first (json_deep_copy).
TARVEX_API tarvex_result_t tarvex_dsi_rest_read_json(void* argument, void* buffer, size_t length);

#ifdef __cplusplus
}
#endif
