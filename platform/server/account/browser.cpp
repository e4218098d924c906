#include "account/browser.h"

#include "base/text.h"
#include "tarvex_common.hpp"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string_view>
#include <vector>

namespace tarvex::server {

namespace {

constexpr const char* DEFAULT_BROWSER = "xdg-open";
constexpr std::string_view PLACE = "%s";

/// A program and its arguments, which blanks part, with the address among them.
std::vector<std::string> browser_words(std::string_view program, const std::string& address) {
  std::vector<std::string> words;
  bool placed = false;
  while (!program.empty()) {
    std::string word(take_word(program));
    if (word.empty()) continue;
    if (const std::size_t at = word.find(PLACE); at != std::string::npos) {
      word.replace(at, PLACE.size(), address);
      placed = true;
    }
    words.push_back(std::move(word));
  }
  if (!placed) words.push_back(address);
  return words;
}

/// In the child of the child, so that nobody has to wait for the browser. Never returns.
[[noreturn]] void become(std::vector<std::string>& words, int failed) {
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  std::signal(SIGPIPE, SIG_DFL);
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) (void)dup2(nothing, stream);
  execvp(arguments[0], arguments.data());
  const int error = errno;
  (void)!write(failed, &error, sizeof error);
  _exit(1);
}

/// \return whether it runs.
bool start(std::vector<std::string> words) {
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  const descriptor told(ends[0]);
  descriptor failed(ends[1]);
  const pid_t child = fork();
  if (child < 0) return false;
  if (child == 0) {
    (void)setsid();
    if (const pid_t grandchild = fork(); grandchild != 0) _exit(grandchild < 0 ? 1 : 0);
    become(words, failed.get());
  }
  failed = descriptor();
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  // The end without a byte comes with execve(2), which closes the other end.
  int error = 0;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 && read(told.get(), &error, sizeof error) == 0;
}

}  // namespace

bool browser_open(const std::string& address) {
  const char* const named = std::getenv("BROWSER");
  if (named == nullptr || *named == '\0') return start(browser_words(DEFAULT_BROWSER, address));
  std::string_view programs = named;
  while (!programs.empty()) {
    const std::string_view program = take_field(programs, ':');
    if (program.find_first_not_of(' ') != std::string_view::npos && start(browser_words(program, address))) return true;
  }
  return false;
}

}  // namespace tarvex::server
