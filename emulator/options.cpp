#include "options.h"

#include "base/likeness.h"
#include "box/app.h"
#include "control/control.h"
#include "traffic/fault.h"

#include <CLI/CLI.hpp>

namespace tarvex::emulator {
namespace {

struct raw_options {
  std::vector<std::string> accounts;
  std::vector<std::string> passwords;
  std::string likeness;
  std::string refresh;
  std::vector<std::string> settings;
};

/// Splits at the first separator; throws CLI::ValidationError with `form` when there is none.
std::pair<std::string, std::string> pair_of(const std::string& text, char separator, const std::string& form) {
  const auto at = text.find(separator);
  if (at == std::string::npos || at == 0) throw CLI::ValidationError("'" + text + "' is not of the form " + form);
  return {text.substr(0, at), text.substr(at + 1)};
}

void describe(CLI::App& app, options& to, raw_options& raw) {
  app.add_option("--listen", to.listen, "numeric address and port; port 0 takes a free one")->capture_default_str();
  app.add_option("--data", to.data, "directory of the state; made when it is missing")->required();
  app.add_option("--account", raw.accounts, "NAME:TOKEN, a user (made when absent) and a token that never expires");
  app.add_option("--password", raw.passwords,
                 "NAME:PASSWORD, what a user signs in with on the consent page (the name itself)");
  app.add_option("--app", to.apps, "JSON file of a registered app, see below");
  app.add_option("--like", raw.likeness, "box or box-on-a-bad-day: many settings at once, see below");
  app.add_option("--refresh", raw.refresh, "grace or strict: the setting refresh, see below");
  app.add_option("--faults", to.faults, "JSON file of faults, see below");
  app.add_option("--journal", to.journal, "file to which each request is appended as a line of JSON");
  auto* certificate = app.add_option("--certificate", to.certificate, "PEM file: serve https");
  auto* key = app.add_option("--key", to.key, "PEM file of the certificate's key");
  // One without the other would quietly serve plain HTTP.
  certificate->needs(key);
  key->needs(certificate);
  app.add_flag("--demo", to.demo, "fill the first account's root, when it is empty, with a small tree");
  app.add_flag("--quiet", to.quiet, "no line for each request on standard error");
  app.add_option("--set,--settings", raw.settings, "NAME=VALUE, see below");
  app.footer("Prints \"listening on HOST:PORT\" when it is ready, and serves until SIGTERM or SIGINT.\n\nSettings:\n" +
             settings_help() + "\nLikenesses; --set changes what one of them sets:\n" + likeness_help() + "\n" +
             app_help() + "\n" + fault_help() + "\n" + control_help());
}

void take_setting(const std::string& name, const std::string& value, options& to) {
  const std::string refusal = settings_set(to.set, name, value);
  if (!refusal.empty()) throw CLI::ValidationError(refusal);
}

void take(const raw_options& raw, options& to) {
  for (const std::string& each : raw.accounts) {
    to.accounts.push_back(pair_of(each, ':', "NAME:TOKEN"));
    if (to.accounts.back().second.empty()) throw CLI::ValidationError("--account " + each + " has no token");
  }
  for (const std::string& each : raw.passwords) {
    to.passwords.push_back(pair_of(each, ':', "NAME:PASSWORD"));
    if (to.passwords.back().second.empty()) throw CLI::ValidationError("--password " + each + " has no password");
  }
  if (!raw.likeness.empty()) {
    const std::string refusal = likeness_apply(to.set, raw.likeness);
    if (!refusal.empty()) throw CLI::ValidationError(refusal);
  }
  if (!raw.refresh.empty()) take_setting("refresh", raw.refresh, to);
  for (const std::string& each : raw.settings) {
    const auto [name, value] = pair_of(each, '=', "NAME=VALUE");
    take_setting(name, value, to);
  }
  if (to.demo && to.accounts.empty()) throw CLI::ValidationError("--demo needs an --account to fill");
}

}  // namespace

std::optional<options> options_parse(int argc, char** argv, int& exit_code) {
  CLI::App app("A local Box: API, uploads, downloads and sign-in on one port, for demonstrations and tests.");
  options parsed;
  raw_options raw;
  describe(app, parsed, raw);
  try {
    app.parse(argc, argv);
    take(raw, parsed);
  } catch (const CLI::ParseError& error) {
    // CLI11 has a number for each kind of mistake; 2 is what shells take for wrong usage.
    exit_code = app.exit(error) == 0 ? 0 : 2;
    return std::nullopt;
  }
  return parsed;
}

}  // namespace tarvex::emulator
