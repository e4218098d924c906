#include "support/child_program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <utility>

namespace {

constexpr int PATIENCE_MS = 20000;

}  // namespace

child_program::child_program(std::vector<std::string> command) : errors_(memfd_create("errors", MFD_CLOEXEC)) {
  std::vector<char*> arguments;
  for (std::string& argument : command) arguments.push_back(argument.data());
  arguments.push_back(nullptr);
  int ends[2] = {-1, -1};
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  output_ = ends[0];
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errors_, STDERR_FILENO);
  EXPECT_EQ(posix_spawn(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ), 0) << arguments[0];
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
}

child_program::~child_program() {
  if (pid_ > 0) wait_for_end(SIGKILL);
  close(output_);
  close(errors_);
}

std::string child_program::line() const {
  std::string text;
  char byte = 0;
  pollfd awaited = {output_, POLLIN, 0};
  while (poll(&awaited, 1, PATIENCE_MS) == 1 && read(output_, &byte, 1) == 1 && byte != '\n') text += byte;
  return text;
}

std::string child_program::errors() const {
  std::string text(65536, '\0');
  const ssize_t length = pread(errors_, text.data(), text.size(), 0);
  text.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
  return text;
}

int child_program::wait_for_end(int signal) {
  if (signal != 0) kill(pid_, signal);
  int status = 0;
  if (waitpid(std::exchange(pid_, -1), &status, 0) < 0) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
