#pragma once

#include <stdexcept>
#include <string>

namespace tarvex::server {

/// How an account command ends.
enum class account_exit {
  done = 0,
  refused = 1,   ///< Box or the person said no, or the machine could not
  wrong_use = 2  ///< of the command, or a mistake in the configuration
};

/// Ends an account command; its text, one line or a line for each mistake, is for the person at the terminal.
class account_failure : public std::runtime_error {
 public:
  account_failure(account_exit how, const std::string& text) : std::runtime_error(text), how_(how) {}

  [[nodiscard]] account_exit how() const { return how_; }

 private:
  account_exit how_;
};

}  // namespace tarvex::server
