// The program tarvex-gridftp-server.
#include "base/log.h"
#include "config/accounts.h"
#include "config/box_check.h"
#include "config/configuration.h"
#include "confine/privileges.h"
#include "listener.h"
#include "reload.h"
#include "storage/plugin.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace server = tarvex::server;

constexpr int EXIT_MISTAKES = 2;
constexpr const char* VERSION = "tarvex-gridftp-server " TARVEX_VERSION;

const std::vector<std::pair<std::string, server::log_level>> LEVELS = {{"debug", server::log_level::debug},
                                                                       {"info", server::log_level::info},
                                                                       {"warning", server::log_level::warning},
                                                                       {"error", server::log_level::error}};

struct options {
  std::string file;
  bool check = false;
  server::log_level level = server::log_level::info;
};

/// Every mistake in the configuration, in what it names, and in what it asks of this machine.
std::vector<server::configuration_mistake> find_mistakes(const std::string& file, server::configuration& config,
                                                         server::account_map& accounts) {
  auto mistakes = server::configuration_read(file, config, accounts);
  const std::string error = server::privileges_mistake(config.user);
  if (!error.empty()) mistakes.push_back({file, server::configuration_line(config, "security.user"), error});
  return mistakes;
}

int run(const options& chosen) {
  std::signal(SIGPIPE, SIG_IGN);  // whoever reads the log, or a client, may go at any time
  server::log_start(chosen.level);
  server::configuration config;
  server::account_map accounts;
  const auto mistakes = find_mistakes(chosen.file, config, accounts);
  for (const auto& mistake : mistakes) std::fprintf(stderr, "%s\n", server::mistake_text(mistake).c_str());
  if (!mistakes.empty()) return EXIT_MISTAKES;
  if (chosen.check) {
    const std::string warning = server::box_pacing_warning(config);
    if (!warning.empty()) server::log_warning("{}", warning);
    std::puts("configuration ok");
    return 0;
  }
  server::accounts_warn_exposed(config.accounts_file, accounts);
  server::storage_plugin storage;
  const std::string error = server::plugin_load(config, storage);
  if (!error.empty()) {
    server::log_write(server::log_level::error, error);
    return 1;
  }
  return server::listener_run(std::filesystem::absolute(chosen.file).string(), config, storage);
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("Serves a storage account as a file tree over FTP and GridFTP.", "tarvex-gridftp-server");
  options chosen;
  app.add_option("--config", chosen.file, "Configuration file (TOML)")->type_name("FILE")->required();
  app.add_flag("--check", chosen.check, "Check the configuration, report every mistake with its line, and exit");
  app.add_option("--log-level", chosen.level, "Least level of the lines that are logged: debug, info, warning or error")
      ->transform(CLI::CheckedTransformer(LEVELS).description(""))
      ->type_name("LEVEL")
      ->default_str("info");
  app.set_version_flag("--version", VERSION, "Print the version and exit");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& outcome) {  // also what --help and --version end with
    return app.exit(outcome) == 0 ? 0 : EXIT_MISTAKES;
  }
  return run(chosen);
} catch (const std::exception& failure) {
  std::fprintf(stderr, "tarvex-gridftp-server: %s\n", failure.what());
  return 1;
}
