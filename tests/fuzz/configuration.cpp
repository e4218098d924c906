// Configuration files and accounts files: read as TOML and checked, mistakes named by their lines; and changed in
// place.
#include "config/configuration.h"
#include "config/account_setting.h"
#include "config/accounts.h"
#include "config/toml_edit.h"
#include "fuzz.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace tarvex::server {
namespace {

using fuzz::must;

/// A file in memory, of the owner's alone, whose content changes.
class memory_file {
 public:
  memory_file() : descriptor_(memfd_create("fuzz", MFD_CLOEXEC)) { must(fchmod(descriptor_, S_IRUSR | S_IWUSR) == 0); }
  std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }
  void assign(std::string_view content) const {
    must(ftruncate(descriptor_, 0) == 0);
    must(pwrite(descriptor_, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
  }

 private:
  int descriptor_;
};

void check(const std::vector<configuration_mistake>& mistakes, std::string_view content) {
  const auto lines = static_cast<unsigned>(std::count(content.begin(), content.end(), '\n')) + 1;
  for (const configuration_mistake& mistake : mistakes) must(!mistake.text.empty() && mistake.line <= lines);
}

/// A text that was changed is readable, and says what was asked for; one that was not is as it was. The other accounts
/// stay as they were.
void check_edit(std::string_view bytes, const std::string& name, const std::vector<toml_setting>* settings) {
  const std::string before(bytes);
  std::string after = before;
  const std::string error = settings != nullptr ? toml_put(after, name, *settings) : toml_remove(after, name);
  if (!error.empty()) return must(after == before);
  accounts_reading was = accounts_parse("f", before, true);
  accounts_reading is = accounts_parse("f", after, true);
  must(was.readable && is.readable && is.accounts.contains(name) == (settings != nullptr));
  was.accounts.erase(name);
  is.accounts.erase(name);
  must(was.accounts.size() == is.accounts.size());
}

void edit(std::string_view bytes) {
  static const std::vector<toml_setting> SET = {{"root", "/x"}, {"allow", std::vector<std::string>{"::1"}}};
  static const std::vector<toml_setting> UNSET = {{"credential", std::nullopt}, {"password", std::nullopt}};
  for (const char* const name : {"alice", "a.b"}) {
    check_edit(bytes, name, &SET);
    check_edit(bytes, name, &UNSET);
    check_edit(bytes, name, nullptr);
  }
  toml_setting setting;
  if (account_setting_parse(bytes, setting).empty()) must(!setting.key.empty());
}

}  // namespace
}  // namespace tarvex::server

void tarvex::fuzz::run(std::string_view bytes) {
  static const server::memory_file file;
  file.assign(bytes);
  server::configuration config;
  server::check(server::configuration_load(file.path(), config), bytes);
  server::check(server::accounts_load(file.path(), false).mistakes, bytes);
  server::edit(bytes);
}
