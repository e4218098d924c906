#pragma once

#include <string>

namespace tarvex::server {

/// Whether libcrypt can verify a password against `hash`, as crypt(3) writes it.
[[nodiscard]] bool is_password_hash(const std::string& hash);

/// Whether `password` is the one that `hash` was made of. Takes the time that the hash's scheme costs, which is meant
/// to be long. Leaves nothing of the password behind.
[[nodiscard]] bool password_matches(const std::string& password, const std::string& hash);

}  // namespace tarvex::server
