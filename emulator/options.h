#pragma once

#include "base/settings.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tarvex::emulator {

/// What the command line says.
struct options {
  std::string listen = "127.0.0.1:0";
  std::string data;
  std::vector<std::pair<std::string, std::string>> accounts;   // name and token
  std::vector<std::pair<std::string, std::string>> passwords;  // account's name and password
  std::vector<std::string> apps;                               // files
  std::string faults;
  std::string journal;
  std::string certificate;
  std::string key;
  bool demo = false;
  bool quiet = false;
  settings set;
};

/// Reads the command line. Nothing: the program is to end with `exit_code` (help was shown, or a mistake reported).
[[nodiscard]] std::optional<options> options_parse(int argc, char** argv, int& exit_code);

}  // namespace tarvex::emulator
