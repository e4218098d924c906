#pragma once

#include "broker/store_cipher.h"
#include "broker/token_record.h"
#include "config/configuration.h"
#include "tarvex_common.hpp"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tarvex::server {

/// What a record's file could not do, in one line.
using store_error = std::string;

/// The broker's records, a file for each account, in a folder that nobody else may enter. Sealed, unless the
/// configuration says otherwise, for the account's name and the record's generation.
///
/// The broker and the command line use it at the same time: who reads to write holds the account's lock. Any thread.
class token_store {
 public:
  /// Makes the folder where it is missing, and reads the key. \return what is wrong; empty: it can be used.
  [[nodiscard]] store_error open(const configuration& config);

  /// Holds an account's lock, across processes, until it goes.
  using lock = descriptor;
  /// Waits for the lock. None when it is not to be had in time.
  [[nodiscard]] lock lock_account(const std::string& name, std::chrono::milliseconds limit) const;

  /// What a reading gave.
  struct reading {
    enum class verdict { found, missing, unreadable };
    verdict how = verdict::missing;
    std::optional<token_record> record = {};
    store_error error = {};  ///< unreadable: why
  };
  [[nodiscard]] reading read(const std::string& name) const;

  /// A place on the disk that is taken for a record which is still to come: where the disk is full this fails, and not
  /// the writing of tokens that nobody could have again.
  class place {
   public:
    [[nodiscard]] const store_error& error() const { return error_; }

   private:
    friend class token_store;
    descriptor file_;
    std::string path_;
    store_error error_;
  };
  [[nodiscard]] place take_place(const std::string& name) const;
  /// Writes the record into its place and puts that in the place of the record before (rename(2)), all of it on the
  /// disk. The account's lock is held.
  [[nodiscard]] store_error write(const std::string& name, const token_record& record, place into) const;
  [[nodiscard]] store_error write(const std::string& name, const token_record& record) const;
  /// Removes a record. One that does not exist is no error.
  [[nodiscard]] store_error remove(const std::string& name) const;

  /// The names of all accounts that have a record.
  [[nodiscard]] std::vector<std::string> names() const;

  /// Seals every record anew with the key in a file, and puts that key in the place of the one in force, where that is
  /// a file. What was done already is done again without harm, so that a broken run is just repeated.
  /// \return what went wrong; empty: all records are sealed with the new key alone.
  [[nodiscard]] store_error rekey(const std::string& new_key_file);

 private:
  [[nodiscard]] std::string path_of(const std::string& name) const;
  [[nodiscard]] store_error load_key() const;
  [[nodiscard]] store_error replace_key_file(const secret& key) const;
  [[nodiscard]] std::shared_ptr<const store_cipher> cipher_for(const store_cipher::key_id& id) const;
  [[nodiscard]] std::shared_ptr<const store_cipher> cipher_in_force() const;

  std::string folder_;
  std::string key_file_;  ///< empty: the key is systemd's
  std::function<std::string(secret& key)> read_key_;
  store_encryption encryption_ = store_encryption::aes_256_gcm;
  mutable std::mutex mutex_;
  mutable std::shared_ptr<const store_cipher> cipher_;  // guarded by mutex_; read again when a record has another key
  std::shared_ptr<const store_cipher> next_cipher_;     // the same; while records change over to it
};

}  // namespace tarvex::server
