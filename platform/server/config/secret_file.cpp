#include "config/secret_file.h"

#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace tarvex::server {

namespace {

constexpr std::size_t LARGEST_SECRET_MIB = 1;
constexpr std::size_t KEY_LEAST_BYTES = 32;
constexpr const char* KEY_CREDENTIAL = "store-key";

void keep(std::string& text, secret_extent extent) {
  if (extent == secret_extent::whole) {
    if (text.ends_with('\n')) text.pop_back();
    return;
  }
  text.resize(std::min(text.find('\n'), text.size()));
  if (text.ends_with('\r')) text.pop_back();
}

/// Of systemd's files the mode tells nothing: it lets its unit's user in by an access control list.
std::string read_store_key(const std::string& path, secret_privacy privacy, secret& out) {
  secret read;
  if (const auto failure = secret_file_read(path, privacy, secret_extent::whole, read))
    return path + " " + failure->text;
  if (read.text().size() < KEY_LEAST_BYTES)
    return fmt::format(
        "{} is too short for a key: it has {} bytes, and {} are needed; make one with: openssl rand -out "
        "{} {}",
        path, read.text().size(), KEY_LEAST_BYTES, path, KEY_LEAST_BYTES);
  out = std::move(read);
  return {};
}

}  // namespace

std::optional<file_failure> secret_file_read(const std::string& path, secret_privacy privacy, secret_extent extent,
                                             secret& out) {
  const bool alone = privacy == secret_privacy::owner_only;
  std::string text;
  if (auto failure =
          regular_file_read(path, alone ? file_trust::owner_only : file_trust::anyone, LARGEST_SECRET_MIB, text))
    return failure;
  keep(text, extent);
  out = secret(std::move(text));
  return std::nullopt;
}

std::string client_secret_read(const configuration& config, secret& out) {
  const std::string& path = config.box_client_secret_file;
  if (path.empty()) {
    out = secret();
    return {};
  }
  secret read;
  if (const auto failure = secret_file_read(path, secret_privacy::owner_only, secret_extent::first_line, read))
    return path + " " + failure->text;
  if (read.text().empty()) return path + " is empty; put the app's client secret into its first line";
  out = std::move(read);
  return {};
}

std::string store_key_path(const configuration& config) {
  if (!config.broker_key_file.empty()) return config.broker_key_file;
  const char* const folder = std::getenv("CREDENTIALS_DIRECTORY");
  return folder == nullptr || *folder == '\0' ? "" : std::string(folder) + "/" + KEY_CREDENTIAL;
}

std::string store_key_read(const configuration& config, secret& out) {
  if (config.broker_encryption == store_encryption::none) {
    out = secret();
    return {};
  }
  const std::string path = store_key_path(config);
  const bool named = !config.broker_key_file.empty();
  if (path.empty())
    return fmt::format(
        "there is no key for the store; make one with: openssl rand -out key {}, and name it as key_file "
        "(or pass it as systemd's credential \"{}\"), or set encryption = \"none\"",
        KEY_LEAST_BYTES, KEY_CREDENTIAL);
  return read_store_key(path, named ? secret_privacy::owner_only : secret_privacy::anyone, out);
}

std::string store_key_file_read(const std::string& path, secret& out) {
  return read_store_key(path, secret_privacy::owner_only, out);
}

}  // namespace tarvex::server
