#include "broker/record_name.h"

#include "base/number.h"
#include "base/text.h"

#include <cstdint>

namespace tarvex::server {

std::string record_name(std::string_view account) {
  constexpr std::string_view PLAIN_BYTES = "-_@+";
  std::string name;
  for (const char c : account) {
    if (is_alphanumeric(c) || PLAIN_BYTES.find(c) != std::string_view::npos) {
      name.push_back(c);
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    name.push_back('%');
    append_hex(name, {&byte, 1});
  }
  return name;
}

std::optional<std::string> record_account(std::string_view file) {
  if (!file.ends_with(RECORD_SUFFIX)) return std::nullopt;
  file.remove_suffix(RECORD_SUFFIX.size());
  std::string name;
  for (std::size_t i = 0; i < file.size(); ++i) {
    if (file[i] != '%') {
      name.push_back(file[i]);
      continue;
    }
    const auto byte = parse_number<std::uint8_t>(file.substr(i + 1, 2), 16);
    if (!byte || i + 2 >= file.size()) return std::nullopt;
    name.push_back(static_cast<char>(*byte));
    i += 2;
  }
  return name;
}

}  // namespace tarvex::server
