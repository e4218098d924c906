#include "command/checksum_names.h"

#include "base/checksum.h"

#include <algorithm>
#include <array>

namespace tarvex::server {

namespace {

struct hash_row {
  std::string_view name;
  std::string_view algorithm;
};
constexpr auto HASHES = std::to_array<hash_row>(
    {{"SHA-1", "SHA1"}, {"MD5", "MD5"}, {"SHA-256", "SHA256"}, {"SHA-512", "SHA512"}, {"CRC32", "CRC32"}});

}  // namespace

std::string hash_name(std::string_view algorithm) {
  const auto row = std::find_if(HASHES.begin(), HASHES.end(),
                                [&](const hash_row& candidate) { return candidate.algorithm == algorithm; });
  return row == HASHES.end() ? std::string() : std::string(row->name);
}

std::string hash_algorithm(std::string_view name) {
  const std::string_view known = checksum_name(name);
  return hash_name(known).empty() ? std::string() : std::string(known);
}

std::string hashes_starred(std::string_view selected) {
  std::string text;
  for (const hash_row& row : HASHES) {
    if (!text.empty()) text += ';';
    text.append(row.name).append(row.algorithm == selected ? "*" : "");
  }
  return text;
}

}  // namespace tarvex::server
