/// \file
/// The one way to Box: every call states its particulars in a record and goes through `request_perform`.
#pragma once

#include "base_url.h"
#include "error.h"
#include "json_ptr.h"
#include "tarvex_box_common.h"

#include <functional>
#include <string>
#include <vector>

namespace tarvex::box {

/// Fields that Box is asked to name of each item.
inline constexpr char ITEM_FIELDS[] = "type,id,name,parent,size,content_modified_at,sha1";
/// The same of one file that is asked for by itself.
inline constexpr char FILE_FIELDS[] = "type,id,name,parent,size,content_modified_at,sha1,metadata.global.properties";

/// Statuses of Box's answers that calls look at by themselves.
inline constexpr int STATUS_OK = 200;
inline constexpr int STATUS_ACCEPTED = 202;
inline constexpr int STATUS_PARTIAL_CONTENT = 206;
inline constexpr int STATUS_UNAUTHORIZED = 401;
inline constexpr int STATUS_FORBIDDEN = 403;
inline constexpr int STATUS_NOT_FOUND = 404;
inline constexpr int STATUS_REQUEST_TIMEOUT = 408;
inline constexpr int STATUS_CONFLICT = 409;
inline constexpr int STATUS_GONE = 410;
inline constexpr int STATUS_PRECONDITION_FAILED = 412;
inline constexpr int STATUS_RANGE_NOT_SATISFIABLE = 416;
inline constexpr int STATUS_TOO_MANY_REQUESTS = 429;
inline constexpr int STATUS_UNAVAILABLE = 503;

/// "folders" or "files", as URLs have it.
inline const char* item_collection(int type) {
  return type == TARVEX_BOX_FOLDER ? "folders" : "files";
}

struct query_parameter {
  const char* key = nullptr;
  const char* value = nullptr;  ///< null: the parameter is left out
};

struct request_header {
  const char* key = nullptr;
  std::string value = {};
};

/// What an answer means for its attempt.
struct verdict {
  tarvex_result_t result = TARVEX_SUCCESS;
  bool retryable = false;
};

/// Judges an answer. `document` is borrowed, null without one; `retry_after` holds the seconds of the attempt before
/// and takes those before the next.
using judge_t = verdict (*)(const tarvex_dsi_rest_response_arg_t& response, json_t* document,
                            unsigned long& retry_after);

/// Success below 400; everything else is translated.
verdict judge_status(const tarvex_dsi_rest_response_arg_t& response, json_t* document, unsigned long& retry_after);
/// Success below 400; a refusal is never tried again.
verdict judge_final(const tarvex_dsi_rest_response_arg_t& response, json_t* document, unsigned long& retry_after);

/// One Box call. Pointers are borrowed for the call.
struct request {
  error_source source = {};  ///< who asks, for trace lines and errors
  const char* method = "GET";
  std::string url = {};
  std::vector<query_parameter> query = {};
  std::vector<request_header> headers = {};  ///< sent after Authorization
  tarvex_dsi_rest_write_t write = nullptr;   ///< writer of the body; null: no body
  void* write_arg = nullptr;
  bool reads_document = true;             ///< the answer's body is JSON, for `answer::document`
  tarvex_dsi_rest_read_t read = nullptr;  ///< else what takes it; null: nothing does
  void* read_arg = nullptr;
  bool wants_location = false;           ///< the Location header is asked for
  int attempts = 2;                      ///< the first included
  int* shared_retries = nullptr;         ///< attempts beyond the first, shared with other calls, instead
  bool delayed = true;                   ///< each attempt waits for Retry-After and pacing
  tarvex_box_retry_t* pacing = nullptr;  ///< null: the wait keeps no spacing
  judge_t judge = judge_status;
  std::function<void()> before_attempt = {};  ///< runs first in each attempt
  /// Gets status and headers of an answer before its body. A failure ends the attempt with it.
  std::function<tarvex_result_t(int status, const tarvex_dsi_rest_key_array_t& headers)> on_head = {};
  /// Called several times a second while an attempt is on its way. A failure ends the attempt with it.
  std::function<tarvex_result_t()> on_progress = {};
  const char* access_token = nullptr;                ///< null: the session's; given: any thread may make the call
  tarvex_gfs_operation_t renew_token_for = nullptr;  ///< the token is renewed in each attempt; null: it is not
  size_t authorization_limit = std::string::npos;    ///< the Authorization value is cut to so many characters
  int progress_timeout_ms = tarvex_i_box_progress_timeout_ms;
};

/// What came of a call. After a failure there is neither document nor location.
struct answer {
  json_ptr document = {};         ///< null: none
  std::string location = {};      ///< value of the Location header; empty: none
  int status = 0;                 ///< of the last attempt's answer; 0: none arrived whole
  unsigned long retry_after = 0;  ///< seconds that the last attempt's answer asked to wait
  bool uncertain = false;         ///< an attempt that got no answer of success may have been carried out all the same
};

/// Makes the call, again while attempts remain and a failure may be cured.
[[nodiscard]] tarvex_result_t request_perform(tarvex_box_session_t* box, const request& call, answer& out);

}  // namespace tarvex::box
