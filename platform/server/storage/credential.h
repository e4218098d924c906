#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace tarvex::server {

/// What the storage gets for the user, or why it gets nothing.
struct credential_reply {
  int code = 0;                              ///< of the reply to a failure, 421 or 530; 0: none failed
  std::string text = {};                     ///< the failure, for the client
  std::optional<std::string> document = {};  ///< none: there is no credential
  std::uint64_t generation = 0;              ///< tells the document's token from those before and after it
};

/// Where a session's credential comes from. Operation thread; it may take its time.
struct credential_source {
  /// \param renewal  the storage had one, which is about to expire
  /// \param refused  generation of a token that Box has refused; 0: none
  std::function<credential_reply(bool renewal, std::uint64_t refused)> get;
  /// The token of that generation has served.
  std::function<void(std::uint64_t generation)> used;
};

}  // namespace tarvex::server
