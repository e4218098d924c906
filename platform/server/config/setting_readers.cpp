#include "config/setting_readers.h"

#include "base/text.h"
#include "config/choice.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

namespace tarvex::server {

namespace {

/// Whether `text` may be part of a symbol's name.
bool is_symbol_part(std::string_view text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char byte) { return is_alphanumeric(byte) || byte == '_'; });
}

/// A port for passive data connections: none of those below 1024, which need privileges.
std::optional<std::uint16_t> data_port(const toml::node* node) {
  constexpr std::int64_t LOWEST = 1024;
  constexpr std::int64_t HIGHEST = 65535;
  const auto* const number = node == nullptr ? nullptr : node->as_integer();
  if (number == nullptr || number->get() < LOWEST || number->get() > HIGHEST) return std::nullopt;
  return static_cast<std::uint16_t>(number->get());
}

template <typename T>
void read_choice(const setting_reading& in, std::span<const choice<T>> choices, T& out) {
  const auto* const text = in.as<std::string>();
  if (text == nullptr) return;
  const std::optional<T> found = choice_value(choices, *text);
  if (!found) return in.refuse(choice_names(choices));
  out = *found;
}

}  // namespace

std::string path_error(const std::string& path, bool folder) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return std::strerror(errno);
  if (S_ISDIR(status.st_mode) != folder) return folder ? "it is no folder" : "it is a folder";
  return access(path.c_str(), folder ? W_OK | X_OK : R_OK) == 0 ? "" : std::strerror(errno);
}

std::string named_path(const setting_reading& in) {
  const auto* const text = in.as<std::string>();
  if (text == nullptr) return {};
  if (!text->empty()) return path_beside(in.mistakes.file, *text);
  in.refuse("a path");
  return {};
}

std::string usable_path(const setting_reading& in, bool folder) {
  const auto* const text = in.as<std::string>();
  if (text == nullptr) return {};
  if (text->empty()) {
    in.refuse(folder ? "the path of a folder" : "the path of a file");
    return {};
  }
  const std::string path = path_beside(in.mistakes.file, *text);
  const std::string error = path_error(path, folder);
  if (error.empty()) return path;
  in.mistake("\"" + path + "\" cannot be used: " + error);
  return {};
}

void read_addresses(const setting_reading& in, std::vector<listen_address>& out) {
  const auto* const items = in.as<toml::array>();
  if (items == nullptr) return;
  if (items->empty()) in.mistake("name at least one address");
  for (const toml::node& node : *items) {
    const toml_entry item{node, node.source().begin.line, in.entry.where};
    const auto* const text = toml_expect<std::string>(item, in.mistakes);
    if (text == nullptr) continue;
    if (const auto address = listen_address_parse(*text)) {
      out.push_back(*address);
    } else {
      toml_refuse(item, "\"IPv4:PORT\" or \"[IPv6]:PORT\"", in.mistakes);
    }
  }
}

void read_data_ports(const setting_reading& in) {
  const auto* const ends = in.as<toml::array>();
  if (ends == nullptr) return;
  const auto lowest = data_port(ends->get(0));
  const auto highest = data_port(ends->get(1));
  if (ends->size() != 2 || !lowest || !highest || *lowest > *highest) {
    return in.mistake("expected [LOWEST, HIGHEST], two ports from 1024 to 65535 in rising order");
  }
  in.out.data_ports.emplace(*lowest, *highest);
}

void read_passive_address(const setting_reading& in) {
  const auto* const text = in.as<std::string>();
  if (text == nullptr) return;
  boost::system::error_code error;
  in.out.passive_address = boost::asio::ip::make_address_v4(*text, error);
  if (error) in.refuse("a numeric IPv4 address");
}

/// The mistake does not repeat what was found: a password may stand in it.
void read_proxy(const setting_reading& in) {
  const auto* const text = in.as<std::string>();
  if (text == nullptr) return;
  in.out.box_proxy = *text;
  if (!is_proxy_url(*text))
    in.mistake("expected SCHEME://[USER:PASSWORD@]HOST[:PORT] and nothing after it, SCHEME being " + proxy_schemes());
}

void read_dsi(const setting_reading& in) {
  const auto* const text = in.as<std::string>();
  if (text == nullptr) return;
  if (!is_symbol_part(*text)) return in.refuse("a name of letters, digits and \"_\"");
  in.out.storage_dsi = *text;
}

void read_sandbox(const setting_reading& in) {
  static constexpr choice<sandbox_mode> MODES[] = {
      {"require", sandbox_mode::require}, {"try", sandbox_mode::attempt}, {"off", sandbox_mode::off}};
  read_choice<sandbox_mode>(in, MODES, in.out.sandbox);
}

void read_encryption(const setting_reading& in) {
  static constexpr choice<store_encryption> WAYS[] = {{"aes-256-gcm", store_encryption::aes_256_gcm},
                                                      {"none", store_encryption::none}};
  read_choice<store_encryption>(in, WAYS, in.out.broker_encryption);
}

void read_storage_settings(const setting_reading& in) {
  const auto* const members = in.as<toml::table>();
  if (members == nullptr) return;
  for (const auto& [name, node] : *members) {
    const std::string key(name.str());
    const toml_entry entry{node, name.source().begin.line, key + " in [storage.settings]"};
    in.out.lines["storage.settings." + key] = entry.line;
    const auto* const value = toml_expect<std::int64_t>(entry, in.mistakes);
    if (value == nullptr) continue;
    if (*value < INT_MIN || *value > INT_MAX) {
      in.mistakes.add(entry.line, entry.where + ": " + toml_describe(node) + " does not fit into 32 bits");
    } else if (!is_symbol_part(key)) {
      in.mistakes.add(entry.line, entry.where + ": a setting's name has letters, digits and \"_\" only");
    } else {
      in.out.storage_settings[key] = static_cast<int>(*value);
    }
  }
}

}  // namespace tarvex::server
