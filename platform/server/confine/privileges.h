#pragma once

#include <string>

namespace tarvex::server {

/// Why a program that was started as root cannot become the user; empty: it can, or it is not root.
[[nodiscard]] std::string privileges_mistake(const std::string& user);

/// Whether this machine has the user.
[[nodiscard]] bool user_exists(const std::string& user);

/// Becomes the user, with that user's groups and no other, for good; nothing happens to a program that is not root.
/// "root" stays what it is, with a warning in the log. Before any thread is started.
/// \return what went wrong; the program must not go on then. Empty: done.
[[nodiscard]] std::string privileges_give_up(const std::string& user);

}  // namespace tarvex::server
