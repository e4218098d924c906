#include "oauth/box_document.h"

namespace tarvex::server {

box_document box_document_get(const https_setup& https, const std::string& url, const std::string& access_token) {
  const https_answer answer = https_ask(https, {.url = url, .bearer = access_token});
  box_document out{.status = answer.status, .date = answer.date};
  if (answer.status == 0) {
    out.error = "no answer from Box: " + answer.error;
  } else if (answer.status != 200) {
    out.error = "Box answered with status " + std::to_string(answer.status);
  } else {
    out.body = json_object_parse(answer.body.text());
    if (!out.body) out.error = "Box's answer is no JSON object";
  }
  return out;
}

}  // namespace tarvex::server
