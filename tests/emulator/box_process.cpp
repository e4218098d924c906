#include "box_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>

namespace emulator_test {
namespace {

/// Starts the emulator; its standard output comes at the descriptor.
std::pair<pid_t, tarvex::descriptor> start(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), TARVEX_EMULATOR);
  std::vector<char*> pointers;
  for (std::string& each : arguments) pointers.push_back(each.data());
  pointers.push_back(nullptr);
  std::array<int, 2> ends{};
  EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  const tarvex::descriptor inlet(ends[1]);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(inlet.get(), STDOUT_FILENO);
    ::execv(TARVEX_EMULATOR, pointers.data());
    ::_exit(127);
  }
  return {pid, tarvex::descriptor(ends[0])};
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
  const auto [pid, output] = start(std::move(arguments));
  pid_ = pid;
  const std::string line = read_output(output.get(), true);
  EXPECT_TRUE(line.starts_with("listening on 127.0.0.1:")) << line;
  port_ = std::atoi(line.c_str() + line.rfind(':') + 1);
}

box_process::~box_process() {
  int status = -1;
  ::kill(pid_, SIGTERM);
  ::waitpid(pid_, &status, 0);
  EXPECT_EQ(status, 0) << "the emulator did not end cleanly";
}

std::string box_process::text(const std::string& request, const std::string& body, const header_list& headers,
                              const std::string& token) const {
  std::string all = request + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) + "\r\n";
  if (!token.empty()) all += "Authorization: Bearer " + token + "\r\n";
  bool has_length = false;
  bool in_chunks = false;
  for (const auto& [name, value] : headers) {
    all += name + ": " + value + "\r\n";
    in_chunks = in_chunks || name == "Transfer-Encoding";
    has_length = has_length || name == "Content-Length" || in_chunks;
  }
  if (!has_length) all += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  return all + "\r\n" + (in_chunks ? chunked(body) : body);
}

reply box_process::send(const std::string& request, const std::string& body, const header_list& headers,
                        const std::string& token) const {
  raw_connection connection(port_);
  connection.send(text(request, body, headers, token));
  return connection.receive(!request.starts_with("HEAD "));
}

reply box_process::check(const std::vector<exchange>& rows) const {
  reply answer;
  for (const exchange& each : rows) {
    SCOPED_TRACE(each.name);
    answer = send(each.request, each.body, each.headers);
    EXPECT_EQ(answer.status, each.status) << answer.body;
    answer.expect(each.members);
  }
  return answer;
}

std::string box_process::folder(const std::string& parent, const std::string& name) const {
  return check({{"folder", "POST /2.0/folders", named(name, parent), 201}}).at("id");
}

std::string box_process::file(const std::string& parent, const std::string& name, const std::string& bytes) const {
  const reply made = upload(named(name, parent), bytes);
  EXPECT_EQ(made.status, 201) << made.body;
  return made.at("entries.0.id");
}

reply box_process::fetch(const std::string& id, const std::string& range) const {
  const reply redirect = send("GET /2.0/files/" + id + "/content");
  const std::string url = redirect.header("Location");
  EXPECT_TRUE(url.starts_with(origin() + "/d/1/")) << redirect.status << url;
  if (redirect.status != 302) return redirect;
  const header_list headers = range.empty() ? header_list() : header_list{{"Range", range}};
  return send("GET " + url.substr(origin().size()), {}, headers, "");
}

bool box_process::all_faults_used() const {
  const json_ptr rows = send("GET /_emulator/faults").json();
  bool all = json_array_size(rows.get()) > 0;
  for (std::size_t i = 0; i < json_array_size(rows.get()); ++i) {
    all = all && json_integer_value(json_object_get(json_array_get(rows.get(), i), "used")) > 0;
  }
  return all;
}

outcome box_run(const std::string& arguments) {
  FILE* program = ::popen((TARVEX_EMULATOR " " + arguments + " 2>&1").c_str(), "r");
  outcome ended{.text = read_output(::fileno(program), false)};
  ended.status = WEXITSTATUS(::pclose(program));
  return ended;
}

}  // namespace emulator_test
