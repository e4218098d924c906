#include "config/account_keys.h"

#include "base/text.h"
#include "config/account_permissions.h"
#include "config/password_hash.h"

#include <algorithm>
#include <limits>

namespace tarvex::server {

namespace {

constexpr std::size_t LONGEST_NAME_BYTES = 256;
constexpr std::int64_t MOST_SESSIONS = 100000;

void read_password(const toml_entry& entry, account& out, mistake_list& mistakes) {
  const auto* const text = toml_expect<std::string>(entry, mistakes);
  if (text == nullptr) return;
  if (is_password_hash(*text)) {
    out.password = *text;
    return;
  }
  mistakes.add(entry.line,
               entry.where + ": this is no password hash of crypt(3); make one with: openssl passwd -6, or: mkpasswd");
}

void read_credential(const toml_entry& entry, account& out, mistake_list& mistakes) {
  const auto* const text = toml_expect<std::string>(entry, mistakes);
  if (text == nullptr) return;
  out.line = entry.line;
  if (text->empty())
    return mistakes.add(entry.line, entry.where + ": expected the path of a file, found an empty text");
  out.credential = path_beside(mistakes.file, *text);
}

bool is_certificate_name(std::string_view text) {
  constexpr std::string_view DIGEST = "sha256:", SUBJECT = "subject:", HEX = "0123456789abcdef";
  constexpr std::size_t DIGITS = 64;
  if (text.starts_with(SUBJECT)) return text.size() > SUBJECT.size();
  if (!text.starts_with(DIGEST)) return false;
  text.remove_prefix(DIGEST.size());
  return text.size() == DIGITS && text.find_first_not_of(HEX) == std::string_view::npos;
}

/// Each text of a list that must not be empty.
/// \param take  \return whether it is what it should be
template <typename Take>
void read_texts(const toml_entry& entry, std::string_view one, std::string_view expected, mistake_list& mistakes,
                Take take) {
  const auto* const items = toml_expect<toml::array>(entry, mistakes);
  if (items == nullptr) return;
  if (items->empty()) mistakes.add(entry.line, entry.where + ": name at least one " + std::string(one));
  for (const toml::node& node : *items) {
    const toml_entry item{node, node.source().begin.line, entry.where};
    const auto* const text = toml_expect<std::string>(item, mistakes);
    if (text != nullptr && !take(*text)) toml_refuse(item, expected, mistakes);
  }
}

void read_certificates(const toml_entry& entry, account& out, mistake_list& mistakes) {
  constexpr std::string_view EXPECTED = "\"sha256:\" and 64 digits of lower-case hex, or \"subject:\" and a subject";
  read_texts(entry, "certificate", EXPECTED, mistakes, [&](const std::string& text) {
    if (!is_certificate_name(text)) return false;
    out.certificates.push_back(text);
    return true;
  });
}

void read_allow(const toml_entry& entry, account& out, mistake_list& mistakes) {
  constexpr std::string_view EXPECTED =
      "an address or a network such as 192.0.2.0/24 or 2001:db8::/32, without bits set behind its prefix";
  read_texts(entry, "network", EXPECTED, mistakes, [&](const std::string& text) {
    const auto network = client_network_parse(text);
    if (network) out.allow.push_back(*network);
    return network.has_value();
  });
}

/// A path in Box, without empty and "." components. \return nothing when it is not absolute, leads upwards or has
/// control bytes in it.
std::optional<std::string> normal_root(std::string_view text) {
  if (!text.starts_with('/') || std::any_of(text.begin(), text.end(), is_control)) return std::nullopt;
  std::string path;
  while (!text.empty()) {
    const std::string_view component = take_field(text, '/');
    if (component == "..") return std::nullopt;
    if (!component.empty() && component != ".") path.append("/").append(component);
  }
  return path.empty() ? "/" : path;
}

void read_root(const toml_entry& entry, account& out, mistake_list& mistakes) {
  const auto* const text = toml_expect<std::string>(entry, mistakes);
  if (text == nullptr) return;
  const auto path = normal_root(*text);
  if (!path) return toml_refuse(entry, "the absolute path of a folder in Box, without \"..\"", mistakes);
  out.root = *path;
}

void read_permissions(const toml_entry& entry, account& out, mistake_list& mistakes) {
  const auto* const text = toml_expect<std::string>(entry, mistakes);
  if (text == nullptr) return;
  const auto found = account_permissions_parse(*text);
  if (!found) return toml_refuse(entry, account_permissions_known(), mistakes);
  out.permissions = *found;
}

void read_expires(const toml_entry& entry, account& out, mistake_list& mistakes) {
  const auto* const date = toml_expect<toml::date>(entry, mistakes);
  if (date == nullptr) return;
  const std::chrono::year_month_day day{std::chrono::year(date->year), std::chrono::month(date->month),
                                        std::chrono::day(date->day)};
  if (!day.ok()) return toml_refuse(entry, TOML_TYPE_TEXT<toml::date>, mistakes);
  out.expires = day;
}

void read_disabled(const toml_entry& entry, account& out, mistake_list& mistakes) {
  if (const auto* const flag = toml_expect<bool>(entry, mistakes)) out.disabled = *flag;
}

void read_max_sessions(const toml_entry& entry, account& out, mistake_list& mistakes) {
  if (const auto number = toml_number(entry, 1, MOST_SESSIONS, mistakes))
    out.max_sessions = static_cast<unsigned>(*number);
}

void read_max_upload(const toml_entry& entry, account& out, mistake_list& mistakes) {
  if (const auto number = toml_number(entry, 1, std::numeric_limits<std::int64_t>::max(), mistakes))
    out.max_upload = static_cast<std::uint64_t>(*number);
}

struct account_key {
  std::string_view name;
  void (*read)(const toml_entry& entry, account& out, mistake_list& mistakes);
};
constexpr account_key KEYS[] = {
    {"password", read_password},         {"credential", read_credential},
    {"certificates", read_certificates}, {"root", read_root},
    {"permissions", read_permissions},   {"allow", read_allow},
    {"expires", read_expires},           {"disabled", read_disabled},
    {"max_sessions", read_max_sessions}, {"max_upload", read_max_upload},
};

}  // namespace

bool account_key_read(std::string_view key, const toml_entry& entry, account& out, mistake_list& mistakes) {
  const auto* const row =
      std::find_if(std::begin(KEYS), std::end(KEYS), [&](const account_key& known) { return known.name == key; });
  if (row == std::end(KEYS)) return false;
  row->read(entry, out, mistakes);
  return true;
}

std::vector<std::string_view> account_key_names() {
  std::vector<std::string_view> names;
  for (const account_key& row : KEYS) names.push_back(row.name);
  return names;
}

std::string account_name_error(std::string_view name) {
  if (!name.empty() && name.size() <= LONGEST_NAME_BYTES && std::none_of(name.begin(), name.end(), is_control))
    return {};
  return "a login name has 1 to 256 bytes, none of them a control byte";
}

}  // namespace tarvex::server
