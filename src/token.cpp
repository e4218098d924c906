#include "date.h"
#include "json_ptr.h"
#include "text.h"
#include "trace.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

using tarvex::c_string;
using tarvex::box::error_ftp;
using tarvex::box::error_generic;
using tarvex::box::json_ptr;

namespace {

constexpr tarvex::box::error_source DATE_SOURCE("tarvex_i_box_parse_date");
constexpr tarvex::box::error_source TOKEN_SOURCE("tarvex_l_box_parse_token_json");

/// A token is renewed when it has no more than this many seconds to live.
constexpr time_t RENEWAL_MARGIN = 99;

bool tarvex_l_box_token_fresh(const tarvex_box_session_t& session) {
  timeval now{};
  tarvex_time_now(&now);
  return now.tv_sec + RENEWAL_MARGIN < session.access_token_exp;
}

tarvex_result_t tarvex_l_box_parse_date(const char* text, time_t* time) {
  tarvex::box::date_fields date;
  const int count = std::sscanf(text, "%4d-%2d-%2dT%2d:%2d:%2d.%*6d%3d:%2d", &date.year, &date.month, &date.day,
                                &date.hour, &date.minute, &date.second, &date.offset_hours, &date.offset_minutes);
  if (count != 8) {
    return error_generic(DATE_SOURCE, std::string("Error parsing time string: ") + text + "\n");
  }
  *time = tarvex::box::date_to_utc(date);
  return TARVEX_SUCCESS;
}

/// Reads the credential document; on failure nothing is stored.
tarvex_result_t tarvex_l_box_parse_token_json(const char* text, char** user_id, char** access_token,
                                              time_t* access_token_exp, uint64_t* max_upload) {
  json_error_t error{};
  const json_ptr credential(json_loads(text, 0, &error));
  if (!credential) {
    return error_generic(TOKEN_SOURCE, std::string("Error loading user credential: ") + error.text + "\n");
  }
  const char *token = nullptr, *expiry = nullptr, *sub = nullptr;
  json_int_t limit = 0;
  if (json_unpack_ex(credential.get(), &error, 0, "{s:s,s:s,s:s,s:I}", "access_token", &token, "token_expiry", &expiry,
                     "sub", &sub, "max_upload", &limit) != 0) {
    const auto message = std::string("GridFTP-Error: Error unpacking user credential: ") + error.text + "\n";
    return error_ftp(500, "INTERNAL_ERROR", message.c_str());
  }
  // It names the pacing files: whatever else it held could lead out of their directory.
  if (*sub == '\0' || sub[std::strspn(sub, "0123456789")] != '\0') {
    return error_ftp(500, "INTERNAL_ERROR",
                     "GridFTP-Error: The user credential's \"sub\" is not a Box user id, which has digits only.");
  }
  time_t expires = 0;
  if (const tarvex_result_t result = tarvex_i_box_parse_date(expiry, &expires); result != TARVEX_SUCCESS) return result;
  c_string token_copy(strdup(token));
  c_string sub_copy(strdup(sub));
  if (!token_copy || !sub_copy) return tarvex::box::error_memory();
  *access_token = token_copy.release();
  *user_id = sub_copy.release();
  *access_token_exp = expires;
  *max_upload = static_cast<uint64_t>(limit);
  return TARVEX_SUCCESS;
}

tarvex_result_t tarvex_l_box_get_token(tarvex_box_session_t* session, tarvex_gfs_operation_t op) {
  const bool renewal = session->access_token != nullptr;
  if (renewal && tarvex_l_box_token_fresh(*session)) return TARVEX_SUCCESS;
  tarvex::box::text_replace(session->access_token, nullptr);
  tarvex::box::text_replace(session->user_id, nullptr);
  char* text = nullptr;
  const tarvex_result_t result = tarvex_gridftp_server_get_config_data(op, renewal ? "renew-creds" : "creds", &text);
  const c_string credential(text);
  if (result != TARVEX_SUCCESS || !credential) return result;
  return tarvex_l_box_parse_token_json(text, &session->user_id, &session->access_token, &session->access_token_exp,
                                       &session->max_upload);
}

tarvex_result_t tarvex_l_box_refresh(tarvex_box_session_t* session, tarvex_gfs_operation_t op) {
  if (const tarvex_result_t result = tarvex_box_get_kelm_token(session, op); result != TARVEX_SUCCESS) return result;
  if (tarvex_l_box_token_fresh(*session)) return TARVEX_SUCCESS;
  tarvex_object_t* const cause = tarvex::box::error_info(
      {tarvex::box::pair("Box-Details", "Token renewal failed. Newly requested token is expired."),
       tarvex::box::pair("Box-Details", nullptr), tarvex::box::pair("Box-Path", nullptr)});
  return error_ftp(500, "INTERNAL_ERROR", "", cause);
}

}  // namespace

extern "C" {

tarvex_result_t tarvex_i_box_parse_date(const char* text, time_t* time) {
  return tarvex::box::traced([&] { return tarvex_l_box_parse_date(text, time); });
}

tarvex_result_t tarvex_box_get_kelm_token(tarvex_box_session_t* session, tarvex_gfs_operation_t op) {
  return tarvex::box::traced([&] { return tarvex_l_box_get_token(session, op); });
}

tarvex_result_t tarvex_box_token_refresh(tarvex_box_session_t* session, tarvex_gfs_operation_t op) {
  return tarvex::box::traced([&] { return tarvex_l_box_refresh(session, op); });
}

}  // extern "C"
