#pragma once

#include "exchange.h"

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace emulator_test {

/// A directory that goes with its owner.
class temporary_directory {
 public:
  temporary_directory();
  temporary_directory(const temporary_directory&) = delete;
  temporary_directory& operator=(const temporary_directory&) = delete;
  ~temporary_directory();

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/// The built emulator on a free port of 127.0.0.1, with the account "alice" and the token "alice-token" and whatever
/// the arguments add. Stopped with SIGTERM; a test fails when it does not end with 0.
class box_process {
 public:
  explicit box_process(std::vector<std::string> arguments = {});
  box_process(const std::filesystem::path& data, std::vector<std::string> arguments);
  box_process(const box_process&) = delete;
  box_process& operator=(const box_process&) = delete;
  ~box_process();

  [[nodiscard]] int port() const { return port_; }
  [[nodiscard]] std::string origin() const { return "http://127.0.0.1:" + std::to_string(port_); }

  /// The bytes of a request ("GET /2.0/users/me"). With a header "Transfer-Encoding: chunked" the body is in chunks.
  [[nodiscard]] std::string text(const std::string& request, const std::string& body = {},
                                 const header_list& headers = {}, const std::string& token = "alice-token") const;

  /// One request on a connection of its own.
  reply send(const std::string& request, const std::string& body = {}, const header_list& headers = {},
             const std::string& token = "alice-token") const;

  /// Requests one after another, each held to its answer; the last answer.
  reply check(const std::vector<exchange>& rows) const;

  /// A direct upload, with further headers.
  reply upload(const std::string& attributes, const std::string& bytes, const header_list& more = {}) const {
    return send("POST /api/2.0/files/content", form(attributes, bytes), form_type(more));
  }

  /// Makes a folder or a file and gives back its id.
  [[nodiscard]] std::string folder(const std::string& parent, const std::string& name) const;
  [[nodiscard]] std::string file(const std::string& parent, const std::string& name, const std::string& bytes) const;

  /// The bytes of a file by way of its download URL, with a Range header when one is given.
  [[nodiscard]] reply fetch(const std::string& id, const std::string& range = {}) const;

  void add_fault(const std::string& row) const { (void)check({{"fault", "POST /_emulator/faults", row, 204}}); }
  void set(const std::string& json) const { (void)check({{"settings", "POST /_emulator/settings", json, 204}}); }

  /// Whether each fault did something to a request.
  [[nodiscard]] bool all_faults_used() const;

 private:
  std::unique_ptr<temporary_directory> own_;  // null: the caller's directory
  pid_t pid_ = -1;
  int port_ = 0;
};

/// Runs the emulator with these arguments (words for the shell) to its end: exit status and all that it printed.
struct outcome {
  int status = -1;
  std::string text;
};
[[nodiscard]] outcome box_run(const std::string& arguments);

}  // namespace emulator_test
