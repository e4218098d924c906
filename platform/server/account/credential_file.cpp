#include "account/credential_file.h"

#include "base/json.h"
#include "base/regular_file.h"

#include <ctime>
#include <utility>

namespace tarvex::server {

namespace {

constexpr std::size_t CREDENTIAL_FILE_MIB = 1;

/// "2026-01-31T12:00:00.000000+00:00", the fraction left out of account.
std::optional<std::chrono::sys_seconds> time_read(const std::string& text) {
  std::tm parts = {};
  const char* rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
  if (rest == nullptr) return std::nullopt;
  if (*rest == '.') rest += 1 + std::string_view(rest + 1).find_first_not_of("0123456789");
  std::tm offset = {};
  if (strptime(rest, "%z", &offset) == nullptr) return std::nullopt;
  return std::chrono::sys_seconds(std::chrono::seconds(timegm(&parts) - offset.tm_gmtoff));
}

}  // namespace

credential_content credential_file_read(const account& of) {
  std::string content;
  if (const auto failure = regular_file_read(of.credential, file_trust::owner_only, CREDENTIAL_FILE_MIB, content))
    return {.error = "the credential file " + failure->text};
  const json_document document = json_object_parse(content);
  wipe(content);
  credential_content out;
  out.access_token = secret(json_text_of(document.get(), "access_token").value_or(""));
  out.box_user = json_text_of(document.get(), "sub").value_or("");
  out.expires_at = time_read(json_text_of(document.get(), "token_expiry").value_or(""));
  if (const auto limit = json_integer_of(document.get(), "max_upload"); limit && *limit > 0)
    out.max_upload = static_cast<std::uint64_t>(*limit);
  if (out.access_token.text().empty() || out.box_user.empty() || !out.expires_at || out.max_upload == 0)
    out.error =
        "the credential file lacks access_token, token_expiry, sub or max_upload, or one of them is of another form";
  return out;
}

}  // namespace tarvex::server
