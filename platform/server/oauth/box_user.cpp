#include "oauth/box_user.h"

#include "base/text.h"
#include "oauth/box_document.h"

namespace tarvex::server {

namespace {

std::string printable_member(const json_t* object, const char* key) {
  std::string text;
  append_printable(text, json_text_of(object, key).value_or(""));
  return text;
}

}  // namespace

box_user_answer box_user_ask(const https_setup& https, const std::string& api_base, const std::string& access_token) {
  const box_document got = box_document_get(https, api_base + "/2.0/users/me", access_token);
  box_user_answer out{.status = got.status, .error = got.error, .date = got.date};
  if (!out.error.empty()) return out;
  out.user.id = printable_member(got.body.get(), "id");
  out.user.name = printable_member(got.body.get(), "name");
  out.user.login = printable_member(got.body.get(), "login");
  const json_int_t limit = json_integer_of(got.body.get(), "max_upload_size").value_or(0);
  if (limit > 0) out.user.max_upload = static_cast<std::uint64_t>(limit);
  const bool digits = !out.user.id.empty() && out.user.id.find_first_not_of("0123456789") == std::string::npos;
  if (!digits || limit <= 0) out.error = "Box's answer does not say who the user is";
  return out;
}

box_folder_answer box_folder_ask(const https_setup& https, const std::string& api_base, const std::string& access_token,
                                 const std::string& id) {
  const box_document got =
      box_document_get(https, api_base + "/2.0/folders/" + id + "/items?limit=1&fields=type,id", access_token);
  box_folder_answer out{.status = got.status, .error = got.error};
  const json_int_t total = json_integer_of(got.body.get(), "total_count").value_or(0);
  if (total > 0) out.entries = static_cast<std::uint64_t>(total);
  return out;
}

}  // namespace tarvex::server
