#include "oauth/box_user.h"

#include "base/text.h"
#include "tarvex_common.hpp"

#include <jansson.h>

#include <string_view>

namespace tarvex::server {

namespace {

using json_handle = owner<json_t, json_decref>;

struct document_answer {
  int status = 0;
  std::string error;
  json_handle body;
  std::optional<std::chrono::sys_seconds> date;
};

document_answer get_document(const https_setup& https, const std::string& url, const std::string& access_token) {
  const https_answer answer = https_ask(https, {.url = url, .bearer = access_token});
  document_answer out;
  out.status = answer.status;
  out.date = answer.date;
  if (answer.status == 0) {
    out.error = "no answer from Box: " + answer.error;
  } else if (answer.status != 200) {
    out.error = "Box answered with status " + std::to_string(answer.status);
  } else {
    out.body.reset(json_loadb(answer.body.text().data(), answer.body.text().size(), 0, nullptr));
    if (!json_is_object(out.body.get())) out.error = "Box's answer is no JSON object";
  }
  return out;
}

std::string printable_member(const json_t* object, const char* key) {
  std::string text;
  if (const char* const value = json_string_value(json_object_get(object, key))) append_printable(text, value);
  return text;
}

}  // namespace

box_user_answer box_user_ask(const https_setup& https, const std::string& api_base, const std::string& access_token) {
  const document_answer got = get_document(https, api_base + "/2.0/users/me", access_token);
  box_user_answer out{.status = got.status, .error = got.error, .date = got.date};
  if (!out.error.empty()) return out;
  out.user.id = printable_member(got.body.get(), "id");
  out.user.name = printable_member(got.body.get(), "name");
  out.user.login = printable_member(got.body.get(), "login");
  const json_int_t limit = json_integer_value(json_object_get(got.body.get(), "max_upload_size"));
  if (limit > 0) out.user.max_upload = static_cast<std::uint64_t>(limit);
  const bool digits = !out.user.id.empty() && out.user.id.find_first_not_of("0123456789") == std::string::npos;
  if (!digits || limit <= 0) out.error = "Box's answer does not say who the user is";
  return out;
}

box_folder_answer box_folder_ask(const https_setup& https, const std::string& api_base, const std::string& access_token,
                                 const std::string& id) {
  const document_answer got =
      get_document(https, api_base + "/2.0/folders/" + id + "/items?limit=1&fields=type,id", access_token);
  box_folder_answer out{.status = got.status, .error = got.error};
  const json_int_t total = json_integer_value(json_object_get(got.body.get(), "total_count"));
  if (total > 0) out.entries = static_cast<std::uint64_t>(total);
  return out;
}

}  // namespace tarvex::server
