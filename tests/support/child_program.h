#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

/// A program run by a test: what it prints is read line by line, what it says on standard error is kept. Killed when a
/// test forgets it.
class child_program {
 public:
  explicit child_program(std::vector<std::string> command);
  child_program(const child_program&) = delete;
  child_program& operator=(const child_program&) = delete;
  ~child_program();

  /// One line of standard output without its end; empty at the end of the stream, or when nothing comes for long.
  [[nodiscard]] std::string line() const;
  /// All of standard error so far.
  [[nodiscard]] std::string errors() const;
  /// Waits for its end, after sending `signal` when there is one.
  /// \return the exit status, or -1 when a signal ended it.
  int wait_for_end(int signal = 0);

 private:
  pid_t pid_ = -1;
  int output_ = -1;
  int errors_ = -1;
};
