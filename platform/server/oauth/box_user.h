#pragma once

#include "oauth/https.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tarvex::server {

/// Whose token it is.
struct box_user {
  std::string id;                ///< digits
  std::string name;              ///< for people
  std::string login;             ///< the same
  std::uint64_t max_upload = 0;  ///< bytes of one file
};

struct box_user_answer {
  int status = 0;          ///< of Box's answer; 0: none came
  std::string error = {};  ///< one line; empty: `user` is good
  box_user user = {};
  std::optional<std::chrono::sys_seconds> date = {};  ///< Box's clock
};

/// Asks Box whose token it is (GET users/me).
/// \param api_base  as in [box], without a slash at its end
[[nodiscard]] box_user_answer box_user_ask(const https_setup& https, const std::string& api_base,
                                           const std::string& access_token);

struct box_folder_answer {
  int status = 0;
  std::string error = {};     ///< one line; empty: the folder could be listed
  std::uint64_t entries = 0;  ///< in it
};

/// Lists a folder by its id ("0": the root), no more than its number of entries.
[[nodiscard]] box_folder_answer box_folder_ask(const https_setup& https, const std::string& api_base,
                                               const std::string& access_token, const std::string& id);

}  // namespace tarvex::server
