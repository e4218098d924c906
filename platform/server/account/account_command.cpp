#include "account/account_command.h"

#include "account/account_add.h"
#include "account/account_change.h"
#include "account/account_failure.h"
#include "account/account_files.h"
#include "account/account_remove.h"
#include "account/account_show.h"
#include "account/account_trial.h"
#include "account/terminal.h"
#include "config/account_setting.h"
#include "confine/fresh_process.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <csignal>
#include <exception>
#include <string>
#include <vector>

namespace tarvex::server {

namespace {

/// What the command line says.
struct account_words {
  std::string config;
  add_wish add;  ///< its name is every command's
  bool with_box = false;
  bool with_ccg = false;
  bool without_browser = false;
  bool json = false;
  bool force = false;
  std::string key_file;
  std::vector<std::string> settings;
};

account_exit exit_of(bool good) {
  return good ? account_exit::done : account_exit::refused;
}

void describe_name(CLI::App& app, account_words& words) {
  app.add_option("NAME", words.add.name, "Login name")->required();
}

void describe_json(CLI::App& app, account_words& words) {
  app.add_flag("--json", words.json, "Print JSON");
}

void describe_password(CLI::App& app, account_words& words) {
  app.add_option("--password-file", words.add.password_file,
                 "File whose first line is the password; without it the terminal is asked")
      ->type_name("FILE");
}

void describe_force(CLI::App& app, account_words& words) {
  app.add_flag("--force", words.force, "Forget the tokens also when Box cannot be told");
}

void describe_add(CLI::App& app, account_words& words) {
  describe_name(app, words);
  auto* const grants = app.add_option_group("grant", "How the account gets its tokens, one of:");
  grants->require_option(1);
  grants->add_flag("--box", words.with_box, "A person consents on Box's page");
  grants->add_flag("--ccg", words.with_ccg, "Client credentials of the app in [box], for the Box user of --box-user");
  grants->add_option("--jwt", words.add.app_file, "Assertions, signed with the key in the app file that Box gave")
      ->type_name("FILE");
  app.add_option("--box-user", words.add.box_user, "Id of the Box user, with --ccg and --jwt")->type_name("ID");
  app.add_option("--algorithm", words.add.algorithm, "Of the signature, with --jwt: RS256, RS384 or RS512")
      ->check(CLI::IsMember({"RS256", "RS384", "RS512"}).description(""))
      ->type_name("NAME")
      ->capture_default_str();
  app.add_flag("--no-browser", words.without_browser,
               "With --box: print the address, and read where it led the browser from standard input");
  describe_password(app, words);
}

account_exit run_add(account_files& files, account_words& words) {
  add_wish& wish = words.add;
  const bool of_person = words.with_box;
  wish.grant = of_person ? grant_kind::box : words.with_ccg ? grant_kind::ccg : grant_kind::jwt;
  wish.with_browser = !words.without_browser;
  const bool is_id = !wish.box_user.empty() && wish.box_user.find_first_not_of("0123456789") == std::string::npos;
  if (of_person && !wish.box_user.empty())
    throw account_failure(account_exit::wrong_use,
                          "--box-user goes with --ccg and --jwt: with --box Box tells who it is");
  if (!of_person && !is_id)
    throw account_failure(account_exit::wrong_use,
                          "--ccg and --jwt need --box-user with the id of the Box user, in digits");
  if (!of_person && words.without_browser)
    throw account_failure(account_exit::wrong_use, "--no-browser goes with --box: no browser is needed otherwise");
  account_add(files, wish);
  return account_exit::done;
}

void describe_one(CLI::App& app, account_words& words) {
  describe_name(app, words);
  describe_json(app, words);
}

void describe_set(CLI::App& app, account_words& words) {
  describe_name(app, words);
  app.add_option("SETTING", words.settings, "KEY=VALUE; KEY= takes the key out")->required()->type_name("KEY=VALUE");
  app.footer("Settings:\n" + account_setting_help() + app.get_footer());
}

void describe_change_of_password(CLI::App& app, account_words& words) {
  describe_name(app, words);
  describe_password(app, words);
}

void describe_end(CLI::App& app, account_words& words) {
  describe_name(app, words);
  describe_force(app, words);
}

void describe_rekey(CLI::App& app, account_words& words) {
  app.add_option("--new-key-file", words.key_file, "File with the new key: 32 bytes or more")
      ->required()
      ->type_name("FILE");
}

struct command_entry {
  const char* name;
  const char* help;
  void (*describe)(CLI::App& app, account_words& words);
  account_exit (*run)(account_files& files, account_words& words);
};
constexpr command_entry COMMANDS[] = {
    {"add", "Sign an account in at Box; a new one is added", describe_add, run_add},
    {"list", "All accounts", describe_json,
     [](account_files& files, account_words& words) { return account_list(files, words.json), account_exit::done; }},
    {"show", "What is known of an account", describe_one,
     [](account_files& files, account_words& words) {
       return account_show(files, words.add.name, words.json), account_exit::done;
     }},
    {"set", "Change settings of an account", describe_set,
     [](account_files& files, account_words& words) {
       return account_set(files, words.add.name, words.settings), account_exit::done;
     }},
    {"password", "Give an account another password", describe_change_of_password,
     [](account_files& files, account_words& words) {
       return account_password(files, words.add.name, words.add.password_file), account_exit::done;
     }},
    {"test", "Try out whether an account works", describe_one,
     [](account_files& files, account_words& words) {
       return exit_of(account_try(files, words.add.name, words.json));
     }},
    {"sign-out", "Have Box end an account's tokens, and forget them", describe_end,
     [](account_files& files, account_words& words) {
       return account_sign_out(files, words.add.name, words.force), account_exit::done;
     }},
    {"remove", "The same, and remove the account", describe_end,
     [](account_files& files, account_words& words) {
       return account_remove(files, words.add.name, words.force), account_exit::done;
     }},
    {"rekey", "Seal the broker's store with another key", describe_rekey,
     [](account_files& files, account_words& words) {
       return account_rekey(files, words.key_file), account_exit::done;
     }},
};

void describe(CLI::App& app, account_words& words) {
  app.add_option("--config", words.config, "Configuration file (TOML)")->type_name("FILE")->required();
  app.require_subcommand(1);
  for (const command_entry& entry : COMMANDS) {
    CLI::App* const command = app.add_subcommand(entry.name, entry.help);
    command->fallthrough();  // --config may stand behind the command too
    command->footer("--config FILE, the configuration (TOML), goes with each command.");
    entry.describe(*command, words);
  }
}

account_exit run(const CLI::App& app, account_words& words) {
  const auto* const chosen = std::find_if(std::begin(COMMANDS), std::end(COMMANDS),
                                          [&](const command_entry& entry) { return app.got_subcommand(entry.name); });
  account_files files(words.config);
  return chosen->run(files, words);
}

}  // namespace

int account_run(int argc, char** argv) try {
  hide_memory();  // tokens, keys and passwords come by
  std::signal(SIGPIPE, SIG_IGN);
  CLI::App app("Manages the accounts: who logs in, and as whom at Box.", "tarvex-gridftp-server account");
  account_words words;
  describe(app, words);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& outcome) {  // also what --help ends with
    if (outcome.get_exit_code() == 0) return app.exit(outcome);
    terminal_complain(std::string(outcome.what()) + " (try --help)");
    return static_cast<int>(account_exit::wrong_use);
  }
  return static_cast<int>(run(app, words));
} catch (const account_failure& failure) {
  for (const std::string& line : failure.lines()) terminal_complain(line);
  return static_cast<int>(failure.how());
} catch (const std::exception& failure) {
  terminal_complain(failure.what());
  return static_cast<int>(account_exit::refused);
}

}  // namespace tarvex::server
