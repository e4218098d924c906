#pragma once

#include "storage/outcome.h"

#include <optional>
#include <string>
#include <string_view>

namespace tarvex::server {

class session;
class transfer;

// The one place that turns an outcome into a reply and a line in the log.

/// Answers a failure.
void answer_failure(session& client, std::string_view verb, std::string_view path, const outcome& how);

/// Refuses what the account's permissions do not allow. `argument` goes to the log only.
void answer_denied(session& client, std::string_view verb, std::string_view argument);

/// Logs a change that was made; answers one that was not. \return whether it was made.
bool answer_change(session& client, std::string_view verb, std::string_view path, const outcome& how);

/// The final reply of a command that used the data channel.
void answer_transfer(session& client, std::string_view verb, std::string_view path, const transfer& channel,
                     const outcome& how);

/// The path that a client means, absolute and normal; answers 501 itself when it cannot be one.
std::optional<std::string> path_argument(session& client, std::string_view argument);

/// Whether the path is the root, which is not removed, renamed or replaced; answers 553 itself when it is.
bool root_refused(session& client, std::string_view path);

/// Whether a data connection is prepared; answers 425 itself when none is.
bool transfer_possible(session& client);
/// The same for the contents of files: in extended block mode whoever sends them connects.
bool download_possible(session& client);
bool upload_possible(session& client);

}  // namespace tarvex::server
