#pragma once

#include "tarvex_common.h"

#include <optional>
#include <string>

namespace tarvex::server {

/// Reads a credential file: a JSON object of up to 1 MiB, a regular file that nobody but its owner may write.
/// \param path  empty: there is none
/// \param text  the document; nothing when the file does not exist
/// \return an error that the client may read: neither path nor content show in it, they are for the log. Its reply code
/// is 421 where the server is out of something, else 530.
[[nodiscard]] tarvex_result_t credential_read(const std::string& path, std::optional<std::string>& text);

}  // namespace tarvex::server
