#pragma once

#include "storage/operation.h"

#include <functional>
#include <optional>
#include <string>

namespace tarvex::server {

/// An item's attributes without the plug-in's strings.
struct item_stat {
  tarvex_gridftp_server_control_stat_t stat{};  ///< name and symlink_target are null
  bool folder() const;
};

/// Asks for the attributes of one item inside the work of another operation. Operation thread.
/// \param item  stays empty when the storage fails
owned_result stat_inside(operation& op, const std::string& path, std::optional<item_stat>& item);

/// Has a folder listed inside the work of another operation, for what the storage learns by it. Operation thread.
owned_result list_inside(operation& op, const std::string& path);

/// Called when a stat came out well.
using stat_call = std::function<void(session& session, const item_stat& item)>;

/// Asks the storage for the attributes of one item; answers the client itself when there is none, and then the session
/// is ready for the next command. `found` may start another operation.
void stat_start(session& session, std::string_view verb, const std::string& path, stat_call found);

/// The same for a file; answers 550 itself when it is a folder. Storages may number files and folders apart, so that a
/// folder taken for a file would be another file.
void file_stat_start(session& session, std::string_view verb, const std::string& path, stat_call found);

/// The path that a client means, absolute and normal; answers 501 itself when it cannot be one.
std::optional<std::string> path_argument(session& session, std::string_view argument);

/// Makes an operation ready to be started.
std::unique_ptr<operation> operation_make(session& session, operation_kind kind, std::string_view verb,
                                          const std::string& path);

/// Logs a failed command.
void command_log_failure(const operation& op);

}  // namespace tarvex::server
