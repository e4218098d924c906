#pragma once

#include <string>
#include <string_view>

namespace tarvex::server {

// The algorithms of HASH, by the names that clients know from other servers.

/// HASH's name of an algorithm, "SHA-1" for "SHA1"; empty: HASH has none.
std::string hash_name(std::string_view algorithm);

/// The algorithm that a client means by a name for HASH, as checksum_name has it; empty: HASH has none.
std::string hash_algorithm(std::string_view name);

/// "SHA-1*;MD5;...": all of them, the selected one starred.
std::string hashes_starred(std::string_view selected);

}  // namespace tarvex::server
