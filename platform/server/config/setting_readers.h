/// \file
/// How the values of the configuration file are read: each function takes one key's value, checks it, and stores it or
/// enters the mistake. The templates name the field of the configuration that a row fills.
#pragma once

#include "config/configuration.h"
#include "config/toml_file.h"
#include "config/url.h"

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace tarvex::server {

/// A value on its way into the configuration.
struct setting_reading {
  toml_entry entry;
  configuration& out;
  mistake_list& mistakes;

  template <typename T>
  [[nodiscard]] const T* as() const {
    return toml_expect<T>(entry, mistakes);
  }
  void refuse(std::string_view expected) const { toml_refuse(entry, expected, mistakes); }
  void mistake(const std::string& text) const { mistakes.add(entry.line, entry.where + ": " + text); }
};

template <typename T>
struct optional_value {
  using type = T;
};
template <typename T>
struct optional_value<std::optional<T>> {
  using type = T;
};

/// A text or a flag, as it stands.
template <auto field>
void read_value(const setting_reading& in) {
  using field_type = std::remove_cvref_t<decltype(in.out.*field)>;
  if (const auto* const value = in.as<typename optional_value<field_type>::type>()) in.out.*field = *value;
}

template <auto field, std::int64_t lowest, std::int64_t highest>
void read_number(const setting_reading& in) {
  using field_type = std::remove_cvref_t<decltype(in.out.*field)>;
  if (const auto number = toml_number(in.entry, lowest, highest, in.mistakes))
    in.out.*field = static_cast<field_type>(*number);
}

/// What keeps a file or folder from being used; empty when nothing does.
[[nodiscard]] std::string path_error(const std::string& path, bool folder);

/// \return the absolute path; empty, and the mistake entered, when no such file or folder can be used.
[[nodiscard]] std::string usable_path(const setting_reading& in, bool folder);

template <auto field, bool folder>
void read_path(const setting_reading& in) {
  if (const std::string path = usable_path(in, folder); !path.empty()) in.out.*field = path;
}

template <auto field>
void read_base_url(const setting_reading& in) {
  const auto* const text = in.as<std::string>();
  if (text == nullptr) return;
  in.out.*field = *text;
  if (!is_base_url(*text)) in.refuse("http://HOST[:PORT] or https://HOST[:PORT] and nothing after it");
}

template <auto field>
void read_private_url(const setting_reading& in) {
  const auto* const text = in.as<std::string>();
  if (text == nullptr) return;
  in.out.*field = *text;
  if (!is_private_url(*text))
    in.refuse("https://HOST[:PORT]/PATH (http for a loopback host only), without \"?\" and \"#\"");
}

/// \return the absolute path, which may lead to nothing yet; empty, and the mistake entered, when the value is no path.
[[nodiscard]] std::string named_path(const setting_reading& in);

template <auto field>
void read_named_path(const setting_reading& in) {
  in.out.*field = named_path(in);
}

/// Adds the addresses of a list.
void read_addresses(const setting_reading& in, std::vector<listen_address>& out);

template <auto field>
void read_listen(const setting_reading& in) {
  read_addresses(in, in.out.*field);
}

void read_data_ports(const setting_reading& in);
void read_passive_address(const setting_reading& in);
void read_proxy(const setting_reading& in);
void read_dsi(const setting_reading& in);

template <auto field>
void read_user(const setting_reading& in) {
  const auto* const text = in.as<std::string>();
  if (text == nullptr) return;
  in.out.*field = *text;
  if (text->empty()) in.refuse("the name of a user");
}

void read_encryption(const setting_reading& in);
void read_sandbox(const setting_reading& in);
void read_storage_settings(const setting_reading& in);

}  // namespace tarvex::server
