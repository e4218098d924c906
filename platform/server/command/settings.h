#pragma once

#include <cstddef>
#include <string>

namespace tarvex::server {

/// Leaves those facts of an MLSD line that the client has chosen with OPTS MLST (RFC 3659 section 7.9).
/// \param selected  bits as in `client_settings::mlst_facts`
/// \param lines     the line begins at `start` and is the last
void facts_filter(unsigned selected, std::string& lines, std::size_t start);

}  // namespace tarvex::server
