#pragma once

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tarvex::server {

/// How an account command ends.
enum class account_exit {
  done = 0,
  refused = 1,   ///< Box or the person said no, or the machine could not
  wrong_use = 2  ///< of the command, or a mistake in the configuration
};

/// Ends an account command. Its text is for the person at the terminal.
class account_failure : public std::runtime_error {
 public:
  account_failure(account_exit how, const std::string& line) : account_failure(how, std::vector{line}) {}
  /// \param lines  one for each thing that is wrong; at least one
  account_failure(account_exit how, std::vector<std::string> lines)
      : std::runtime_error(lines.front()), how_(how), lines_(std::move(lines)) {}

  [[nodiscard]] account_exit how() const { return how_; }
  [[nodiscard]] const std::vector<std::string>& lines() const { return lines_; }

 private:
  account_exit how_;
  std::vector<std::string> lines_;
};

}  // namespace tarvex::server
