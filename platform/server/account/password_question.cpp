#include "account/password_question.h"

#include "account/account_failure.h"
#include "account/terminal.h"
#include "base/secret.h"
#include "config/password_hash.h"
#include "config/secret_file.h"

#include <utility>

namespace tarvex::server {

namespace {

constexpr int QUESTIONS = 3;

secret password_of_file(const std::string& file) {
  secret password;
  if (const auto failure = secret_file_read(file, secret_privacy::anyone, secret_extent::first_line, password))
    throw account_failure(account_exit::wrong_use, file + " " + failure->text);
  if (password.text().empty())
    throw account_failure(account_exit::wrong_use, file + " is empty; put the password into its first line");
  return password;
}

secret password_of_person(const std::string& account) {
  if (!terminal_has_person())
    throw account_failure(account_exit::wrong_use,
                          "a password is needed: name a file with --password-file, or run this on a terminal");
  for (int i = 0; i < QUESTIONS; ++i) {
    secret password = terminal_ask_secret("New password of \"" + account + "\"");
    if (password.text().empty()) {
      terminal_note("A password has one character at least.");
      continue;
    }
    if (terminal_ask_secret("The same again").text() == password.text()) return password;
    terminal_note("The two differ.");
  }
  throw account_failure(account_exit::refused, "no password was entered");
}

}  // namespace

std::string new_password_hash(const std::string& account, const std::string& file) {
  const secret password = file.empty() ? password_of_person(account) : password_of_file(file);
  std::string hash;
  const std::string error = password_hash_make(password, hash);
  if (!error.empty()) throw account_failure(account_exit::wrong_use, error);
  return hash;
}

}  // namespace tarvex::server
