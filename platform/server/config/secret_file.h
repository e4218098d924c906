/// \file
/// Files that hold one secret: a key, a client's secret, a password.
#pragma once

#include "base/regular_file.h"
#include "base/secret.h"
#include "config/configuration.h"

#include <optional>
#include <string>

namespace tarvex::server {

/// Who may get at such a file.
enum class secret_privacy {
  anyone,     ///< does not matter: the person who names it answers for it
  owner_only  ///< nobody but the owner may write it
};

/// What of a file the secret is.
enum class secret_extent {
  whole,      ///< raw bytes, without one "\n" at the end
  first_line  ///< text, without the line's end
};

/// Reads a regular file of up to 1 MiB. Nothing of it stays in memory but in `out`.
/// \return nothing, with `out` filled, which may be empty; or why not, with `out` as it was.
[[nodiscard]] std::optional<file_failure> secret_file_read(const std::string& path, secret_privacy privacy,
                                                           secret_extent extent, secret& out);

/// Reads the secret of [box]'s app. \return what is wrong with its file, which it names; empty, with an empty secret,
/// when none is configured.
[[nodiscard]] std::string client_secret_read(const configuration& config, secret& out);

/// The file with the key of the broker's store: what [broker] names, else systemd's credential "store-key"
/// (systemd.exec(5)). \return empty: none is named.
[[nodiscard]] std::string store_key_path(const configuration& config);

/// Reads that key, of 32 bytes at least. A credential of systemd's is as private as systemd makes it.
/// \return what is wrong, naming the file and what to do; empty, with an empty key, when encryption = "none".
[[nodiscard]] std::string store_key_read(const configuration& config, secret& out);

/// Reads such a key from a file that somebody names. \return what is wrong, naming the file; empty: nothing.
[[nodiscard]] std::string store_key_file_read(const std::string& path, secret& out);

}  // namespace tarvex::server
