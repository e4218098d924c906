// Configuration files and accounts files: read as TOML and checked, mistakes named by their lines.
#include "config/configuration.h"
#include "config/accounts.h"
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

}  // namespace
}  // namespace tarvex::server

void tarvex::fuzz::run(std::string_view bytes) {
  static const server::memory_file file;
  file.assign(bytes);
  server::configuration config;
  server::check(server::configuration_load(file.path(), config), bytes);
  server::account_map accounts;
  server::check(server::accounts_load(file.path(), accounts), bytes);
}
