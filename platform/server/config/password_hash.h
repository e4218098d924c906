#pragma once

#include "base/secret.h"

#include <string>

namespace tarvex::server {

/// Whether libcrypt can verify a password against `hash`, as crypt(3) writes it.
[[nodiscard]] bool is_password_hash(const std::string& hash);

/// Whether `password` is the one that `hash` was made of. Takes the time that the hash's scheme costs, which is meant
/// to be long. Leaves nothing of the password behind.
[[nodiscard]] bool password_matches(const std::string& password, const std::string& hash);

/// Makes the hash of a password: yescrypt at libcrypt's default cost, with a salt of the system's random bytes.
/// \param hash  filled when the answer is empty
/// \return why there is none, for people; an empty password, and one that no login could bring, is none.
[[nodiscard]] std::string password_hash_make(const secret& password, std::string& hash);

}  // namespace tarvex::server
