#include "storage/credential_file.h"

#include "base/log.h"
#include "base/regular_file.h"
#include "tarvex_common.hpp"
#include "tarvex_gridftp_server.h"

#include <jansson.h>

#include <cerrno>

namespace tarvex::server {

namespace {

constexpr std::size_t CREDENTIAL_MIB_MAX = 1;

tarvex_result_t refusal(const std::string& path, int code, const std::string& why) {
  log_error("credential file {} {}", path, why);
  return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
      nullptr, nullptr, code, "CREDENTIAL_NOT_USABLE",
      "The server cannot use the credential of this account; its log says why."));
}

bool is_want_of_resources(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == EIO;
}

bool is_json_object(const std::string& text) {
  const owner<json_t, json_decref> document(json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES, nullptr));
  return json_is_object(document.get());
}

}  // namespace

tarvex_result_t credential_read(const std::string& path, std::optional<std::string>& text) {
  if (path.empty()) return TARVEX_SUCCESS;
  std::string content;
  const auto failure = regular_file_read(path, file_trust::owner_only, CREDENTIAL_MIB_MAX, content);
  if (failure && failure->error == ENOENT) return TARVEX_SUCCESS;
  if (failure) return refusal(path, is_want_of_resources(failure->error) ? 421 : 530, failure->text);
  if (!is_json_object(content)) return refusal(path, 530, "holds no JSON object");
  text = std::move(content);
  return TARVEX_SUCCESS;
}

}  // namespace tarvex::server
