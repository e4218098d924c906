#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tarvex::server {

/// One thing that is wrong with a configuration or accounts file.
struct configuration_mistake {
  std::string file;
  unsigned line = 0;  ///< 0: the file as a whole
  std::string text;   ///< names the key, says what is wrong and what would be right
};

/// "FILE:LINE: TEXT", as `--check` and the start of the program print it.
std::string mistake_text(const configuration_mistake& mistake);

/// The mistakes found so far in one file.
struct mistake_list {
  std::string file;
  std::vector<configuration_mistake> found;

  void add(unsigned line, std::string text) { found.push_back({file, line, std::move(text)}); }
  /// The mistakes in the order of their lines.
  std::vector<configuration_mistake> sorted() &&;
};

}  // namespace tarvex::server
