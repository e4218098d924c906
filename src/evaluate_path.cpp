#include "trace.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

namespace {

struct user_entry {
  std::string name;
  std::string home;
};

/// Password entry of the real user; empty strings for a user without one. False, with errno, when the lookup fails.
bool tarvex_l_box_user_entry(user_entry& user) {
  passwd entry{};
  passwd* found = nullptr;
  std::string buffer(64, '\0');
  errno = 0;
  int code = 0;
  while ((code = getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found)) != 0) {
    if (errno != ERANGE && code != ERANGE) return false;
    buffer.resize(buffer.size() * 2);
    errno = 0;
  }
  if (found == nullptr) return true;
  user.name = found->pw_name != nullptr ? found->pw_name : "";
  user.home = found->pw_dir != nullptr ? found->pw_dir : "";
  return true;
}

tarvex_result_t tarvex_l_box_evaluate(std::string_view rest, char** result) {
  static constexpr std::string_view LOGNAME = "$LOGNAME";
  static constexpr std::string_view HOME = "$HOME";
  *result = nullptr;
  user_entry user;
  if (!tarvex_l_box_user_entry(user)) return tarvex::box::error_memory();
  std::string text;
  for (size_t at = 0; (at = rest.find('$')) != std::string_view::npos;) {
    text += rest.substr(0, at);
    rest.remove_prefix(at);
    if (rest.starts_with(LOGNAME)) {
      text += user.name;
      rest.remove_prefix(LOGNAME.size());
    } else if (rest.starts_with(HOME)) {
      text += user.home;
      rest.remove_prefix(HOME.size());
    } else {
      text += '$';
      rest.remove_prefix(1);
    }
  }
  text += rest;
  *result = strdup(text.c_str());
  return *result != nullptr ? tarvex::box::SUCCESS : tarvex::box::error_memory();
}

}  // namespace

extern "C" tarvex_result_t tarvex_box_evaluate_path(const char* path_template, char** result) {
  const tarvex_result_t outcome = tarvex::box::guarded([&] { return tarvex_l_box_evaluate(path_template, result); });
  return tarvex::box::trace_exit(outcome);
}
