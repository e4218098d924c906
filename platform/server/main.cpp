// The program tarvex-gridftp-server.
#include "account/account_command.h"
#include "base/log.h"
#include "config/configuration.h"
#include "configuration_check.h"
#include "listener.h"
#include "storage/plugin.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

namespace server = tarvex::server;

constexpr int EXIT_MISTAKES = 2;
constexpr std::string_view ACCOUNT = "account";
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

void print_mistakes(const std::vector<server::configuration_mistake>& mistakes) {
  for (const auto& mistake : mistakes) std::fprintf(stderr, "%s\n", server::mistake_text(mistake).c_str());
}

int check(const std::string& file) {
  const server::configuration_findings found = server::configuration_find_mistakes(file);
  print_mistakes(found.mistakes);
  print_mistakes(found.account_mistakes);
  if (!found.mistakes.empty() || !found.account_mistakes.empty()) return EXIT_MISTAKES;
  for (const std::string& warning : found.warnings) server::log_warning("{}", warning);
  std::puts("configuration ok");
  return 0;
}

/// Accounts with mistakes are closed, and the log says so; the others are served.
bool tell_before_start(const server::configuration_findings& found) {
  print_mistakes(found.mistakes);
  for (const auto& mistake : found.account_mistakes) server::log_error("{}", server::mistake_text(mistake));
  return found.mistakes.empty();
}

int serve(const std::string& file) {
  if (!server::configuration_check_apart(file, tell_before_start)) return EXIT_MISTAKES;
  server::configuration config;
  const auto mistakes = server::configuration_load(file, config);
  print_mistakes(mistakes);
  if (!mistakes.empty()) return EXIT_MISTAKES;
  server::storage_plugin storage;
  const std::string error = server::plugin_load(config, storage);
  if (!error.empty()) {
    server::log_write(server::log_level::error, error);
    return 1;
  }
  return server::listener_run(std::filesystem::absolute(file).string(), config, storage);
}

int run(const options& chosen) {
  std::signal(SIGPIPE, SIG_IGN);  // whoever reads the log, or a client, may go at any time
  server::log_start(chosen.level);
  return chosen.check ? check(chosen.file) : serve(chosen.file);
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc > 1 && argv[1] == ACCOUNT) return server::account_run(argc - 1, argv + 1);
  CLI::App app("Serves a storage account as a file tree over FTP and GridFTP.", "tarvex-gridftp-server");
  options chosen;
  app.add_option("--config", chosen.file, "Configuration file (TOML)")->type_name("FILE")->required();
  app.add_flag("--check", chosen.check, "Check the configuration, report every mistake with its line, and exit");
  app.add_option("--log-level", chosen.level, "Least level of the lines that are logged: debug, info, warning or error")
      ->transform(CLI::CheckedTransformer(LEVELS).description(""))
      ->type_name("LEVEL")
      ->default_str("info");
  app.footer("Accounts are managed with: tarvex-gridftp-server account --help");
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
