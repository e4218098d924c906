#include "storage/callbacks_guard.h"
#include "storage/operation.h"
#include "storage/storage_session.h"
#include "tarvex_gridftp_server.h"

#include <cstring>

using tarvex::server::guard_result;
using tarvex::server::operation_complete;
using tarvex::server::operation_kind;

namespace {

tarvex_result_t config_data(tarvex::server::storage_session& storage, std::string_view key,
                            std::optional<std::string>& text) {
  if (key == "config") text = storage.config().storage_policy;
  if (key == "creds" || key == "renew-creds") return storage.hand_credential(key == "renew-creds", text);
  return TARVEX_SUCCESS;
}

}  // namespace

tarvex_result_t tarvex_gridftp_server_get_config_data(tarvex_gfs_operation_t op, const char* key, char** value) {
  return guard_result([&]() -> tarvex_result_t {
    *value = nullptr;
    std::optional<std::string> text;
    const tarvex_result_t result = config_data(op->storage, key ? key : "", text);
    if (result != TARVEX_SUCCESS || !text) return result;
    *value = strdup(text->c_str());
    if (!*value) return tarvex_error_put(nullptr);
    return TARVEX_SUCCESS;
  });
}

tarvex_result_t tarvex_gridftp_server_set_checksum_support(tarvex_gfs_operation_t op, const char* algorithms) {
  return guard_result([&]() -> tarvex_result_t {
    op->storage.announce_checksums(algorithms ? algorithms : "");
    return TARVEX_SUCCESS;
  });
}

void tarvex_gridftp_server_finished_session_start(tarvex_gfs_operation_t op, tarvex_result_t result, void* session,
                                                  const char* username, const char* home_dir) {
  (void)guard_result([&]() -> tarvex_result_t {
    if (!operation_complete(*op, operation_kind::session_start, result)) return TARVEX_SUCCESS;
    op->handle = session;
    op->username = username ? username : "";
    op->home_directory = home_dir ? home_dir : "/";
    return TARVEX_SUCCESS;
  });
}
