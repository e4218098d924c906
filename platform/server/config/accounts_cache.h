#pragma once

#include "config/accounts.h"

#include <sys/types.h>

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::server {

/// How a login with name and password came out.
enum class login_verdict {
  accepted,
  refused,     ///< name or password is wrong
  unavailable  ///< the accounts file cannot tell at this moment: the client is to try again later
};

struct login_answer {
  login_verdict verdict = login_verdict::unavailable;
  const account* who = nullptr;  ///< when accepted; borrowed until the cache is refreshed again
};

/// The accounts file in memory. The listener keeps one and refreshes it before each fork, so that sessions inherit what
/// it has read and look at the file's date only. One thread at a time.
///
/// A file with mistakes in it (half-written, say) leaves what was read before in force; mistakes are logged once. A
/// file that cannot be read, or that others may write, leaves nobody in force.
class accounts_cache {
 public:
  /// \param file  absolute path; not read yet
  explicit accounts_cache(std::string file) : file_(std::move(file)) {}

  /// Reads the file when it is not the one that was read last. With 10,000 accounts a reading takes 0.3 s, a look 2 us.
  void refresh();

  /// The folders of the accounts' credential files, each once; they may not exist.
  [[nodiscard]] const std::vector<std::string>& credential_folders() const { return credential_folders_; }

  /// Refreshes, then checks a login; takes the time of one password hash, whatever comes out.
  [[nodiscard]] login_answer authenticate(std::string_view name, const std::string& password);

  /// Refreshes, then checks a login by certificate, as `accounts_with_certificate`.
  [[nodiscard]] login_answer authenticate_certificate(std::string_view name, const std::vector<std::string>& shown);

 private:
  login_answer answer(const account* who) const;
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
  void take(std::vector<configuration_mistake> mistakes, account_map read);

  std::string file_;
  account_map accounts_;
  std::vector<std::string> credential_folders_;
  std::optional<file_stamp> stamp_;  ///< of the file that was read
  bool settled_ = false;             ///< the file was old enough when it was read
  bool readable_ = false;
  bool whole_ = false;  ///< accounts_ are what the file says
  std::string logged_;  ///< the mistakes that were logged last
};

}  // namespace tarvex::server
