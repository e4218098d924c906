#include "error.h"
#include "trace.h"

#include <array>
#include <cstdlib>
#include <string>
#include <string_view>

using tarvex::box::error_ftp;
using tarvex::box::error_generic;

namespace {

constexpr tarvex::box::error_source TRANSLATE_RESPONSE_SOURCE("tarvex_box_translate_response");

using key_value = tarvex_dsi_rest_key_value_t;

constexpr std::array<const char*, 4> BODY_KEYS = {"code", "request_id", "message", "help_url"};

/// \return the member when it is a string, borrowed; null else.
const char* tarvex_l_box_text(json_t* object, const char* key) {
  return json_string_value(json_object_get(object, key));
}

/// The box error with what Box says: code, request_id, message, help_url, in that order, absent ones left empty.
tarvex_object_t* tarvex_l_box_body_error(json_t* document) {
  std::array<key_value, BODY_KEYS.size()> slots{};
  for (size_t i = 0; i < slots.size(); ++i) {
    const char* const value = tarvex_l_box_text(document, BODY_KEYS[i]);
    if (value != nullptr) slots[i] = tarvex::box::pair(BODY_KEYS[i], value);
  }
  const tarvex_dsi_rest_key_array_t info = {.count = slots.size(), .key_value = slots.data()};
  return tarvex::box::error_response_info(info);
}

/// Messages of REFUSALS, out of Box's context_info.
using message_t = std::string (*)(json_t* context);

std::string tarvex_l_box_conflict_message(json_t* context) {
  const char* const name = json_string_value(json_object_get(json_object_get(context, "conflicts"), "name"));
  return std::string("GridFTP-Path: ") + (name != nullptr ? name : "(null)");
}

std::string tarvex_l_box_missing_message(json_t* context) {
  json_t* const first = json_array_get(json_object_get(context, "errors"), 0);
  const char* const name = json_string_value(json_object_get(first, "name"));
  return name != nullptr ? std::string("GridFTP-Path: \"") + name + "\"" : std::string();
}

std::string tarvex_l_box_trashed_message(json_t*) {
  return "GridFTP-Path: \"<Trashed Item>\"";
}

std::string tarvex_l_box_invalid_message(json_t*) {
  return "GridFTP-Path: <Invalid Name>";
}

/// The words stand for themselves on purpose: Box tells no digests.
std::string tarvex_l_box_digest_message(json_t*) {
  return "GridFTP-Computed-Checksum: computed\nGridFTP-Expected-Checksum: expected";
}

struct refusal {
  std::string_view code;
  int reply;
  const char* class_word;
  message_t message;  ///< null: none
};

constexpr std::array REFUSALS = {
    refusal{"item_name_in_use", 553, "PATH_EXISTS", tarvex_l_box_conflict_message},
    refusal{"not_found", 550, "PATH_NOT_FOUND", tarvex_l_box_missing_message},
    refusal{"trashed", 550, "PATH_NOT_FOUND", tarvex_l_box_trashed_message},
    refusal{"item_name_invalid", 553, "INVALID_PATH_NAME", tarvex_l_box_invalid_message},
    refusal{"access_denied_insufficient_permissions", 550, "PERMISSION_DENIED", nullptr},
    refusal{"item_name_too_long", 553, "INVALID_PATH_NAME", tarvex_l_box_invalid_message},
    refusal{"bad_digest", 550, "INCORRECT_CHECKSUM", tarvex_l_box_digest_message},
};

tarvex_result_t tarvex_l_box_translate_body(json_t* document) {
  tarvex::object_ptr body_error(tarvex_l_box_body_error(document));
  const char* const code = tarvex_l_box_text(document, "code");
  if (code == nullptr) return error_ftp(500, "INTERNAL_ERROR", "");
  for (const refusal& row : REFUSALS) {
    if (row.code != code) continue;
    const std::string message =
        row.message != nullptr ? row.message(json_object_get(document, "context_info")) : std::string();
    return error_ftp(row.reply, row.class_word, row.message != nullptr ? message.c_str() : nullptr,
                     body_error.release());
  }
  return tarvex_error_put(body_error.release());
}

tarvex_result_t tarvex_l_box_translate_status(int status, bool& retryable) {
  if (status < 400 || status == 429) {
    retryable = true;
    return error_ftp(451, "TOO_BUSY", nullptr);
  }
  if (status >= 500) return error_ftp(500, "INTERNAL_ERROR", "");
  switch (status) {
    case 400:
      return error_generic(TRANSLATE_RESPONSE_SOURCE, "Bad BOX request");
    case 401:
    case 403:
      return error_ftp(550, "PERMISSION_DENIED", nullptr);
    case 404:
      return error_ftp(550, "PATH_NOT_FOUND", "");
    case 409:
      return error_ftp(553, "PATH_EXISTS", "GridFTP-Path: (null)");
    default:
      return TARVEX_SUCCESS;  // the other 4xx count as successes on purpose
  }
}

tarvex_result_t tarvex_l_box_translate(const tarvex_dsi_rest_response_arg_t* response, json_t* document, bool* retry,
                                       unsigned long* retry_after) {
  unsigned long seconds = 0;
  bool retryable = false;
  const auto& wanted = response->desired_headers;
  if (retry_after != nullptr && wanted.count > 0 && wanted.key_value[0].value != nullptr) {
    seconds = std::strtoul(wanted.key_value[0].value, nullptr, 10);
    retryable = true;
  }
  const tarvex_result_t result = document != nullptr
                                     ? tarvex_l_box_translate_body(document)
                                     : tarvex_l_box_translate_status(response->response_code, retryable);
  if (retry != nullptr) *retry = retryable;
  if (retry_after != nullptr) *retry_after = seconds;
  return result;
}

}  // namespace

extern "C" tarvex_result_t tarvex_box_translate_response(const tarvex_dsi_rest_response_arg_t* response,
                                                         json_t* document, bool* retry, unsigned long* retry_after) {
  return tarvex::box::traced([&] { return tarvex_l_box_translate(response, document, retry, retry_after); });
}
