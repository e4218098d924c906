#pragma once

#include "config/accounts.h"
#include "config/toml_edit.h"
#include "tarvex_common.hpp"

#include <chrono>
#include <string>
#include <vector>

namespace tarvex::server {

/// One change of an accounts file: opened, changed, written. In between no other such change can happen; whoever edits
/// the file by hand meanwhile is noticed. One thread.
///
/// Each function returns what is wrong, for people; empty: nothing. After a failure the file is as it was.
class accounts_edit {
 public:
  static constexpr std::chrono::seconds PATIENCE{10};

  /// Locks the file, waiting for others who change it, and reads it; a missing one is an empty one. A
  /// symbolic link is followed. The lock lies in a file beside it, ".NAME.lock", which stays.
  [[nodiscard]] std::string open(const std::string& file, std::chrono::milliseconds patience = PATIENCE);

  /// What the file says, changes included; as accounts_load.
  [[nodiscard]] accounts_reading accounts(bool broker) const;

  /// Sets and removes keys of an account, which is added when it is new. The values are taken as they are.
  [[nodiscard]] std::string put(const std::string& name, const std::vector<toml_setting>& settings);
  /// Removes an account, when there is one.
  [[nodiscard]] std::string remove(const std::string& name);

  /// Writes the file when it was changed, with mode and owner as before (0600 when new), and unlocks it.
  [[nodiscard]] std::string save();

 private:
  std::string file_;  ///< what is written: no symbolic link
  descriptor lock_;
  std::string text_;
  std::string before_;  ///< text_ as it was read
};

}  // namespace tarvex::server
