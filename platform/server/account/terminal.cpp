#include "account/terminal.h"

#include "account/account_failure.h"
#include "base/text.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <utility>

namespace tarvex::server {

namespace {

constexpr const char* PROGRAM = "tarvex-gridftp-server: ";
constexpr std::size_t LINE_MAX_BYTES = 64 * 1024;
constexpr std::array ENDINGS = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

void print_line(std::FILE* to, std::string_view before, std::string_view text) {
  std::string line(before);
  append_printable(line, text);
  std::fprintf(to, "%s\n", line.c_str());
  std::fflush(to);
}

volatile std::sig_atomic_t ending = 0;

/// A terminal without echo. A signal that ends the program does so after the echo is back.
class quiet_terminal {
 public:
  quiet_terminal() {
    // Held back but while input is waited for: none is to come between a look at `ending` and the wait.
    sigset_t held;
    sigemptyset(&held);
    for (const int signal : ENDINGS) sigaddset(&held, signal);
    (void)sigprocmask(SIG_BLOCK, &held, &mask_before_);
    struct sigaction note = {};
    note.sa_handler = [](int signal) { ending = signal; };
    for (std::size_t i = 0; i < ENDINGS.size(); ++i) (void)sigaction(ENDINGS[i], &note, &actions_[i]);
    if (tcgetattr(STDIN_FILENO, &before_) != 0) return;
    termios quiet = before_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    is_quiet_ = tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) == 0;
  }
  ~quiet_terminal() {
    if (is_quiet_) (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
    for (std::size_t i = 0; i < ENDINGS.size(); ++i) (void)sigaction(ENDINGS[i], &actions_[i], nullptr);
    (void)sigprocmask(SIG_SETMASK, &mask_before_, nullptr);
    if (const int signal = std::exchange(ending, 0); signal != 0) (void)raise(signal);
  }
  quiet_terminal(const quiet_terminal&) = delete;
  quiet_terminal& operator=(const quiet_terminal&) = delete;

  [[nodiscard]] bool is_quiet() const { return is_quiet_; }
  /// The signals that are held back while input is waited for.
  [[nodiscard]] const sigset_t& mask_before() const { return mask_before_; }

 private:
  termios before_{};
  sigset_t mask_before_{};
  std::array<struct sigaction, ENDINGS.size()> actions_{};
  bool is_quiet_ = false;
};

/// \param mask  of signals, while it is waited for; null: as it is
/// \return false: the input has ended, or the program is to
bool next_byte(const sigset_t* mask, char& byte) {
  for (;;) {
    pollfd awaited = {STDIN_FILENO, POLLIN, 0};
    const int ready = ppoll(&awaited, 1, nullptr, mask);
    if (ready < 0 && errno == EINTR && ending == 0) continue;
    if (ready < 0) return false;
    const ssize_t count = read(STDIN_FILENO, &byte, 1);
    if (count < 0 && errno == EINTR) continue;
    return count == 1;
  }
}

bool read_line(const sigset_t* mask, std::string& out) {
  out.clear();
  for (char byte = 0; out.size() < LINE_MAX_BYTES;) {
    if (!next_byte(mask, byte)) return ending == 0 && !out.empty();
    if (byte == '\n') {
      if (out.ends_with('\r')) out.pop_back();
      return true;
    }
    out.push_back(byte);
  }
  return false;
}

}  // namespace

void terminal_say(std::string_view text) {
  print_line(stdout, "", text);
}

void terminal_complain(std::string_view text) {
  print_line(stderr, PROGRAM, text);
}

void terminal_note(std::string_view text) {
  print_line(stderr, "", text);
}

bool terminal_has_person() {
  return isatty(STDIN_FILENO) == 1;
}

secret terminal_ask_secret(std::string_view question) {
  std::string line;
  line.reserve(LINE_MAX_BYTES);  // so that no piece of it stays behind where it grew
  bool got = false;
  bool quiet = false;
  {
    const quiet_terminal silence;
    quiet = silence.is_quiet();
    if (quiet) {
      std::string text;
      append_printable(text, question);
      std::fprintf(stderr, "%s: ", text.c_str());
      std::fflush(stderr);
      got = read_line(&silence.mask_before(), line);
    }
  }
  secret answer(std::move(line));
  if (!quiet) throw account_failure(account_exit::wrong_use, "the terminal's echo cannot be turned off");
  if (!got) throw account_failure(account_exit::refused, "nothing was entered");
  return answer;
}

bool terminal_read_line(std::string& out) {
  return read_line(nullptr, out);
}

}  // namespace tarvex::server
