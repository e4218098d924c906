#include "configuration_check.h"

#include "broker_process.h"
#include "config/accounts.h"
#include "config/box_check.h"
#include "confine/privileges.h"
#include "storage/plugin.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <utility>

namespace tarvex::server {

namespace {

void append_mistakes(std::vector<configuration_mistake>& all, std::vector<configuration_mistake> more) {
  all.insert(all.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}

/// A file that cannot be read closes nobody's account: nothing is known of any.
void check_accounts_file(const configuration& config, configuration_findings& found) {
  if (config.accounts_file.empty() || access(config.accounts_file.c_str(), F_OK) != 0) return;
  accounts_reading read = accounts_load(config.accounts_file, !config.broker_directory.empty());
  append_mistakes(read.readable ? found.account_mistakes : found.mistakes, std::move(read.mistakes));
  append_mistakes(found.account_mistakes, accounts_credential_mistakes(config.accounts_file, read.accounts));
}

}  // namespace

configuration_findings configuration_find_mistakes(const std::string& file) {
  configuration_findings found;
  configuration config;
  found.mistakes = configuration_load(file, config);
  check_accounts_file(config, found);
  if (!config.storage_library.empty()) append_mistakes(found.mistakes, plugin_check(config, file));
  const auto add = [&](const char* key, const std::string& error) {
    if (!error.empty()) found.mistakes.push_back({file, configuration_line(config, key), error});
  };
  std::string warning;
  add("security.user", privileges_mistake(config.user));
  add("broker.user", broker_apart(config, warning));
  for (std::string& text : std::array{std::move(warning), box_pacing_warning(config)})
    if (!text.empty()) found.warnings.push_back(std::move(text));
  return found;
}

bool configuration_check_apart(const std::string& file,
                               const std::function<bool(const configuration_findings& found)>& tell) {
  const pid_t checker = fork();
  if (checker == 0) _exit(tell(configuration_find_mistakes(file)) ? 0 : 1);
  int status = -1;
  while (checker > 0 && waitpid(checker, &status, 0) < 0 && errno == EINTR) {
  }
  return checker > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace tarvex::server
