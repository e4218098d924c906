#include "base/log.h"
#include "base/regular_file.h"
#include "session/session_state.h"
#include "storage/callbacks_guard.h"
#include "storage/operation.h"
#include "tarvex_gridftp_server.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

using tarvex::server::file_trust;
using tarvex::server::guard_result;
using tarvex::server::log_error;
using tarvex::server::operation_complete;
using tarvex::server::operation_kind;
using tarvex::server::regular_file_read;

namespace {

constexpr std::size_t CREDENTIAL_MIB_MAX = 1;

tarvex_result_t credential_error(const std::string& path, int number) {
  return tarvex_error_put(tarvex_i_gfs_error_system(nullptr, number, "Cannot read the credential %s", path.c_str()));
}

/// A whole file; none when it does not exist.
tarvex_result_t credential_read(const std::string& path, std::optional<std::string>& text) {
  if (path.empty()) return TARVEX_SUCCESS;
  std::string content;
  const auto failure = regular_file_read(path, file_trust::owner_only, CREDENTIAL_MIB_MAX, content);
  if (failure && failure->error == ENOENT) return TARVEX_SUCCESS;
  if (failure) {
    log_error("credential file {} {}", path, failure->text);
    return credential_error(path, failure->error);
  }
  text = std::move(content);
  return TARVEX_SUCCESS;
}

tarvex_result_t config_data(const tarvex::server::session& session, const std::string& key,
                            std::optional<std::string>& text) {
  if (key == "config") {
    text = session.setup.config->storage_policy;
    return TARVEX_SUCCESS;
  }
  if (key == "creds" || key == "renew-creds") return credential_read(session.login.who.credential, text);
  return TARVEX_SUCCESS;
}

}  // namespace

tarvex_result_t tarvex_gridftp_server_get_config_data(tarvex_gfs_operation_t op, const char* key, char** value) {
  return guard_result([&]() -> tarvex_result_t {
    *value = nullptr;
    std::optional<std::string> text;
    const tarvex_result_t result = config_data(op->session, key ? key : "", text);
    if (result != TARVEX_SUCCESS || !text) return result;
    *value = strdup(text->c_str());
    if (!*value) return tarvex_error_put(nullptr);
    return TARVEX_SUCCESS;
  });
}

tarvex_result_t tarvex_gridftp_server_set_checksum_support(tarvex_gfs_operation_t op, const char* algorithms) {
  return guard_result([&]() -> tarvex_result_t {
    op->session.storage.checksums = algorithms ? algorithms : "";
    return TARVEX_SUCCESS;
  });
}

void tarvex_gridftp_server_finished_session_start(tarvex_gfs_operation_t op, tarvex_result_t result, void* session,
                                                  const char* username, const char* home_dir) {
  (void)guard_result([&]() -> tarvex_result_t {
    if (!operation_complete(*op, operation_kind::session_start, result)) return TARVEX_SUCCESS;
    op->storage_session = session;
    op->username = username ? username : "";
    op->home_directory = home_dir ? home_dir : "/";
    return TARVEX_SUCCESS;
  });
}
