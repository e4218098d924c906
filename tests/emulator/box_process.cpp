#include "box_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>

extern char** environ;

namespace emulator_test {
namespace {

struct started {
  pid_t pid = -1;
  int output = -1;  // both of the program's streams, or only its standard output
};

started start(std::vector<std::string> arguments, bool with_errors) {
  arguments.insert(arguments.begin(), TARVEX_EMULATOR);
  std::vector<char*> pointers;
  for (std::string& each : arguments) pointers.push_back(each.data());
  pointers.push_back(nullptr);
  std::array<int, 2> pipe_ends{};
  EXPECT_EQ(::pipe2(pipe_ends.data(), O_CLOEXEC), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe_ends[1], STDOUT_FILENO);
  if (with_errors) posix_spawn_file_actions_adddup2(&actions, pipe_ends[1], STDERR_FILENO);
  started program{-1, pipe_ends[0]};
  EXPECT_EQ(posix_spawn(&program.pid, TARVEX_EMULATOR, &actions, nullptr, pointers.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipe_ends[1]);
  return program;
}

/// Reads up to the first line end, or to the end of the stream.
std::string read_output(int from, bool first_line) {
  std::string text;
  char c = 0;
  while (::read(from, &c, 1) == 1 && !(first_line && c == '\n')) text += c;
  return text;
}

}  // namespace

temporary_directory::temporary_directory() {
  std::string form = (std::filesystem::temp_directory_path() / "tarvex-box-XXXXXX").string();
  path_ = ::mkdtemp(form.data());
}

temporary_directory::~temporary_directory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

box_process::box_process(std::vector<std::string> arguments)
    : box_process(std::filesystem::path(), std::move(arguments)) {}

box_process::box_process(const std::filesystem::path& data, std::vector<std::string> arguments) {
  if (data.empty()) own_ = std::make_unique<temporary_directory>();
  const std::string directory = data.empty() ? own_->path() : data;
  for (const char* each : {"--quiet", "--account", "alice:alice-token", "--listen", "127.0.0.1:0", "--data"}) {
    arguments.emplace_back(each);
  }
  arguments.push_back(directory);
  const started program = start(std::move(arguments), false);
  pid_ = program.pid;
  const std::string line = read_output(program.output, true);
  ::close(program.output);
  EXPECT_TRUE(line.starts_with("listening on 127.0.0.1:")) << line;
  port_ = std::atoi(line.c_str() + line.rfind(':') + 1);
}

box_process::~box_process() {
  int status = -1;
  ::kill(pid_, SIGTERM);
  ::waitpid(pid_, &status, 0);
  EXPECT_EQ(status, 0) << "the emulator did not end cleanly";
}

std::string box_process::folder(const std::string& parent, const std::string& name) const {
  const reply made = send("POST", "/2.0/folders", R"({"name":")" + name + R"(","parent":{"id":")" + parent + R"("}})");
  EXPECT_EQ(made.status, 201) << made.body;
  return made.at("id");
}

std::string box_process::file(const std::string& parent, const std::string& name, const std::string& bytes) const {
  const std::string attributes = R"({"name":")" + name + R"(","parent":{"id":")" + parent + R"("}})";
  const reply made = send("POST", "/api/2.0/files/content", form(attributes, bytes), form_type());
  EXPECT_EQ(made.status, 201) << made.body;
  return made.at("entries.0.id");
}

reply box_process::fetch(const std::string& id, const std::string& range) const {
  const reply redirect = send("GET", "/2.0/files/" + id + "/content");
  if (redirect.status != 302) return redirect;
  const std::string url = redirect.header("Location");
  const std::string origin = "http://127.0.0.1:" + std::to_string(port_);
  EXPECT_TRUE(url.starts_with(origin + "/d/1/")) << url;
  return client("").send("GET", url.substr(origin.size()), {},
                         range.empty() ? header_list() : header_list{{"Range", range}});
}

void box_process::add_fault(const std::string& row) const {
  const reply added = send("POST", "/_emulator/faults", row);
  EXPECT_EQ(added.status, 204) << added.body;
}

void box_process::set(const std::string& settings) const {
  const reply changed = send("POST", "/_emulator/settings", settings);
  EXPECT_EQ(changed.status, 204) << changed.body;
}

bool box_process::all_faults_used() const {
  const json_ptr rows = send("GET", "/_emulator/faults").json();
  bool all = json_array_size(rows.get()) > 0;
  for (std::size_t i = 0; i < json_array_size(rows.get()); ++i) {
    all = all && json_integer_value(json_object_get(json_array_get(rows.get(), i), "used")) > 0;
  }
  return all;
}

outcome box_run(const std::vector<std::string>& arguments) {
  const started program = start(arguments, true);
  outcome ended;
  ended.text = read_output(program.output, false);
  ::close(program.output);
  int status = 0;
  ::waitpid(program.pid, &status, 0);
  ended.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return ended;
}

}  // namespace emulator_test
