#include "ftp/facts.h"

#include "base/number.h"
#include "base/text.h"
#include "ftp/listing.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>

namespace tarvex::server {

namespace {

using item = tarvex_gridftp_server_control_stat_t;

void append_type(const item& stat, std::string_view name, std::string& out) {
  out += !S_ISDIR(stat.mode) ? "file" : name == "." ? "cdir" : "dir";
}

void append_size(const item& stat, std::string_view, std::string& out) {
  append_number(out, std::max<tarvex_off_t>(stat.size, 0));
}

void append_modify(const item& stat, std::string_view, std::string& out) {
  listing_timestamp_append(stat.mtime, out);
}

/// What the permissions allow, in the letters of RFC 3659 section 7.5.5. Files are never appended to ("a").
void append_perm(const item& stat, std::string_view, std::string& out) {
  const bool folder = S_ISDIR(stat.mode);
  if ((stat.mode & S_IRUSR) != 0) out += folder ? "el" : "r";
  if ((stat.mode & S_IWUSR) != 0) out += folder ? "cdfmp" : "dfw";
}

void append_mode(const item& stat, std::string_view, std::string& out) {
  append_number(out, stat.mode & 07777U, 8, 4);
}

void append_unique(const item& stat, std::string_view, std::string& out) {
  append_number(out, stat.dev, 16);
  out += 'g';
  append_number(out, stat.ino, 16);
}

/// One fact. The place of a row is the bit of its mask.
struct fact_row {
  std::string_view name;
  void (*append)(const item& stat, std::string_view name, std::string& out);
  bool of_folders;  ///< whether folders have it too
};
constexpr auto FACTS = std::to_array<fact_row>({
    {"type", append_type, true},
    {"size", append_size, false},
    {"modify", append_modify, true},
    {"perm", append_perm, true},
    {"UNIX.mode", append_mode, true},
    {"unique", append_unique, true},
});

bool is_chosen(facts_mask chosen, std::size_t fact) {
  return (chosen >> fact & 1U) != 0;
}

}  // namespace

std::string facts_starred(facts_mask chosen) {
  std::string text;
  for (std::size_t i = 0; i < FACTS.size(); ++i) text.append(FACTS[i].name).append(is_chosen(chosen, i) ? "*;" : ";");
  return text;
}

facts_mask facts_parse(std::string_view names) {
  facts_mask chosen = 0;
  while (!names.empty()) {
    const std::string_view name = take_field(names, ';');
    for (std::size_t i = 0; i < FACTS.size(); ++i) {
      if (same_word(name, FACTS[i].name)) chosen |= 1U << i;
    }
  }
  return chosen;
}

std::string facts_chosen(facts_mask chosen) {
  std::string text;
  for (std::size_t i = 0; i < FACTS.size(); ++i) {
    if (is_chosen(chosen, i)) text.append(FACTS[i].name).append(";");
  }
  return text;
}

void facts_append(const item& stat, std::string_view name, facts_mask chosen, std::string& out) {
  const bool folder = S_ISDIR(stat.mode);
  for (std::size_t i = 0; i < FACTS.size(); ++i) {
    const fact_row& fact = FACTS[i];
    if (!is_chosen(chosen, i) || (folder && !fact.of_folders)) continue;
    out.append(fact.name).push_back('=');
    fact.append(stat, name, out);
    out.push_back(';');
  }
}

}  // namespace tarvex::server
