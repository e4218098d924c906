#pragma once

#include "config/accounts.h"

#include <sys/types.h>

#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

/// The accounts file in memory. One thread at a time.
///
/// A mistake in an account's table closes that account. A file that cannot be read, that others may write or that is no
/// TOML (half-written, say) leaves what was read before in force; names that are not known may be new ones then, and
/// cannot be told about. Mistakes are logged once.
class accounts_cache {
 public:
  /// \param file  absolute path; not read yet
  /// \param broker  as for accounts_load
  accounts_cache(std::string file, bool broker) : file_(std::move(file)), broker_(broker) {}

  /// Reads the file when it is not the one that was read last. With 10,000 accounts a reading takes 0.3 s, a look 2 us.
  /// \return whether any account is new, gone or changed.
  bool refresh();

  /// As they were last read, without another look at the file; they stay as they are.
  [[nodiscard]] std::shared_ptr<const account_map> accounts() const { return accounts_; }
  /// One of them, borrowed until a refresh; null: there is none of the name.
  [[nodiscard]] const account* find(std::string_view name) const;

  /// Whether they are what the file says: it could be read. Else names that are not known may be new ones.
  [[nodiscard]] bool readable() const { return readable_; }

 private:
  /// What tells one state of a file from another.
  struct file_stamp {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified = {};
    timespec changed = {};

    bool operator==(const file_stamp& other) const;
  };

  static std::optional<file_stamp> stamp_of(const std::string& file);
  void log(const std::vector<configuration_mistake>& mistakes);

  std::string file_;
  bool broker_ = false;
  std::shared_ptr<const account_map> accounts_ = std::make_shared<account_map>();
  std::optional<file_stamp> stamp_;  ///< of the file that was read
  bool settled_ = false;             ///< the file was old enough when it was read
  bool readable_ = false;            ///< accounts_ are what the file says
  std::string logged_;               ///< the mistakes that were logged last
};

}  // namespace tarvex::server
