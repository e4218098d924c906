#include "broker/credential_document.h"

#include "base/json.h"
#include "base/log.h"
#include "base/regular_file.h"

#include <fmt/chrono.h>

#include <array>
#include <cerrno>
#include <new>
#include <utility>

namespace tarvex::server {

namespace {

constexpr std::size_t CREDENTIAL_MIB_MAX = 1;
constexpr std::array<const char*, 4> TAKEN = {"access_token", "token_expiry", "sub", "max_upload"};

credential_answer unusable(const account& of, int code, const std::string& why) {
  log_error("account {}: credential file {} {}", of.name, of.credential, why);
  return {.code = code, .text = "The server cannot use the credential of this account; its log says why."};
}

bool is_want_of_resources(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == EIO;
}

/// The account may allow less than Box does, and not more.
void limit_upload(json_t* document, std::uint64_t most) {
  const json_int_t limit = json_integer_value(json_object_get(document, "max_upload"));
  if (most == 0 || limit <= 0 || static_cast<std::uint64_t>(limit) <= most) return;
  json_set_integer(document, "max_upload", static_cast<json_int_t>(most));
}

}  // namespace

credential_answer credential_of_record(const account& of, const token_record& record) {
  const json_document document = json_made(json_object());
  json_set_text(document.get(), "access_token", record.current.access.text());
  json_set_text(document.get(), "token_expiry",
                fmt::format("{:%Y-%m-%dT%H:%M:%S}.000000+00:00",
                            fmt::gmtime(std::chrono::system_clock::to_time_t(record.current.expires_at))));
  json_set_text(document.get(), "sub", record.box_user);
  json_set_integer(document.get(), "max_upload", static_cast<json_int_t>(record.max_upload));
  limit_upload(document.get(), of.max_upload);
  return {.document = json_text(document.get()), .access_token = record.current.access.text()};
}

credential_answer credential_of_file(const account& of) {
  std::string content;
  const auto failure = regular_file_read(of.credential, file_trust::owner_only, CREDENTIAL_MIB_MAX, content);
  if (failure && failure->error == ENOENT) return {};
  if (failure) return unusable(of, is_want_of_resources(failure->error) ? 421 : 530, failure->text);
  const json_document document = json_object_parse(content);
  wipe(content);
  if (!document) return unusable(of, 530, "holds no JSON object");
  // Nothing else that somebody keeps there reaches a session.
  const json_document taken = json_made(json_object());
  for (const char* const key : TAKEN)
    if (json_t* const value = json_object_get(document.get(), key); value != nullptr)
      if (json_object_set(taken.get(), key, value) != 0) throw std::bad_alloc();
  limit_upload(taken.get(), of.max_upload);
  return {.document = json_text(taken.get()),
          .access_token = json_text_of(document.get(), "access_token").value_or("")};
}

}  // namespace tarvex::server
