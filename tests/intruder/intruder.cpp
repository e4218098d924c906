// A storage plug-in that tries, inside a session's process, to get what is not the session's. Its root lists what it
// got: an entry for each success, and "tried-N" for the number of attempts, so that an empty run is no success.
//
// TARVEX_INTRUDER_FILES: the files that it wants, one a line. TARVEX_INTRUDER_FOLDER: where it may write.
#include "tarvex_gridftp_server.h"

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct findings {
  int tried = 0;
  std::vector<std::string> got;

  void note(bool success, std::string what) {
    ++tried;
    for (char& c : what)
      if (c == '/' || c == '\n') c = '_';
    if (success) got.push_back(what.substr(0, 200));
  }
};

std::string environment(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

std::string read_some(const std::string& path) {
  std::array<char, 512> bytes{};
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const ssize_t count = file < 0 ? -1 : read(file, bytes.data(), bytes.size());
  if (file >= 0) close(file);
  return count > 0 ? std::string(bytes.data(), static_cast<std::size_t>(count)) : std::string();
}

void try_file(findings& all, const std::string& path) {
  const std::string parent = std::to_string(getppid());
  for (const std::string& way : {path, "/proc/self/root" + path, "/proc/" + parent + "/root" + path, "/.." + path})
    all.note(!read_some(way).empty(), "read " + way);
  const std::string mine = environment("TARVEX_INTRUDER_FOLDER") + "/link";
  all.note(link(path.c_str(), mine.c_str()) == 0, "link " + path);
  all.note(symlink(path.c_str(), mine.c_str()) == 0 && !read_some(mine).empty(), "symlink " + path);
  all.note(rename(path.c_str(), mine.c_str()) == 0, "rename " + path);
  all.note(chmod(path.c_str(), 0666) == 0, "chmod " + path);
  all.note(unlink(path.c_str()) == 0, "unlink " + path);
}

void try_process(findings& all, pid_t process) {
  const std::string number = std::to_string(process);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // with them sessions may read /proc
  for (const char* what : {"mem", "environ", "maps", "cmdline", "fd/0"})
    all.note(!read_some("/proc/" + number + "/" + what).empty(), "proc " + number + " " + what);
#endif
  all.note(ptrace(PTRACE_ATTACH, process, nullptr, nullptr) == 0, "ptrace " + number);
  char byte = 0;
  iovec mine = {&byte, 1}, its = {reinterpret_cast<void*>(0x400000), 1};
  all.note(process_vm_readv(process, &mine, 1, &its, 1, 0) > 0, "process_vm_readv " + number);
  all.note(syscall(SYS_pidfd_open, process, 0) >= 0, "pidfd_open " + number);
  all.note(kill(process, 0) == 0, "kill " + number);
}

std::atomic<bool> held{false};

/// The I/O thread reads the broker's answers too; it waits meanwhile.
void hold_main_thread(int) {
  while (held) usleep(1000);
}

std::string framed(const std::string& text) {
  const auto length = static_cast<unsigned>(text.size());
  std::string frame;
  for (const unsigned shift : {24U, 16U, 8U, 0U}) frame.push_back(static_cast<char>(length >> shift & 0xffU));
  return frame + text;
}

bool is_broker_socket(int fd) {
  int type = 0, family = 0;
  socklen_t size = sizeof type;
  return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_SEQPACKET &&
         getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &family, &size) == 0 && family == AF_UNIX;
}

/// What a login of "bob", whose password is not known here, would be asked with. Names and passwords are hex there.
void try_broker(findings& all, int fd) {
  const std::string bob = "626f62", rest = R"(,"generation":0)";
  const std::vector<std::string> attempts = {
      R"({"says":"creds","id":1001,"name":")" + bob + R"(","account":"bob")" + rest + "}",
      R"({"says":"renew-creds","id":1002,"name":"bob","account":"bob")" + rest + "}",
      R"({"says":"login","id":1003,"name":")" + bob + R"(","password":"","certificates":[])" + rest + "}",
      R"({"says":"login","id":1004,"name":")" + bob + R"(","password":"","certificates":["subject:CN=bob"])" + rest +
          "}",
      R"({"id":1,"address":"127.0.0.1","account":"bob","logged_in":1,"error":""})",
      R"({"says":"creds","id":1005)" + rest + "}",
      std::string(70000, '['),
      R"({"says":"creds","id":1006)" + rest + "}",
  };
  for (const std::string& attempt : attempts) {
    (void)send(fd, framed(attempt).data(), attempt.size() + 4, MSG_NOSIGNAL);
    std::array<char, 65536> answer{};
    usleep(200'000);
    const ssize_t count = recv(fd, answer.data(), answer.size(), MSG_DONTWAIT);
    const std::string said(answer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
    const bool token = said.find("access_token") != std::string::npos;
    const bool own = said.find("\\\"sub\\\":\\\"" + environment("TARVEX_INTRUDER_OWN") + "\\\"") != std::string::npos;
    all.note(token && !own, "token of " + said);
    for (const char* word : {"refresh", "secret", "$y$", "$5$", "$6$"})
      all.note(said.find(word) != std::string::npos, std::string("answer with ") + word);
  }
}

findings intrude() {
  findings all;
  const std::string files = environment("TARVEX_INTRUDER_FILES");
  for (std::size_t at = 0; at < files.size();) {
    const std::size_t end = std::min(files.find('\n', at), files.size());
    try_file(all, files.substr(at, end - at));
    at = end + 1;
  }
  for (pid_t process = getppid(); process < getppid() + 40; ++process)
    if (process != getpid()) try_process(all, process);
  std::signal(SIGUSR1, hold_main_thread);
  held = true;
  (void)syscall(SYS_tgkill, getpid(), getpid(), SIGUSR1);
  usleep(20'000);
  for (int fd = 3; fd < 64; ++fd)
    if (is_broker_socket(fd)) try_broker(all, fd);
  held = false;
  return all;
}

void list(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t* info, void*) {
  std::vector<std::string> names = {"."};
  if (!info->file_only) {
    findings all = intrude();
    names.insert(names.end(), all.got.begin(), all.got.end());
    names.push_back("tried-" + std::to_string(all.tried));
  }
  std::vector<tarvex_gridftp_server_control_stat_t> entries(names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    entries[i].name = names[i].data();
    entries[i].mode = i == 0 ? S_IFDIR | 0755 : S_IFREG | 0644;
    entries[i].nlink = 1;
  }
  tarvex_gridftp_server_finished_stat(op, TARVEX_SUCCESS, entries.data(), static_cast<int>(entries.size()));
}

void start(tarvex_gfs_operation_t op, tarvex_gfs_session_info_t*) {
  char* credential = nullptr;
  const tarvex_result_t result = tarvex_gridftp_server_get_config_data(op, "creds", &credential);
  std::free(credential);
  tarvex_gridftp_server_finished_session_start(op, result, nullptr, nullptr, "/");
}

const tarvex_gfs_storage_iface_t STORAGE = [] {
  tarvex_gfs_storage_iface_t made{};
  made.init_func = start;
  made.stat_func = list;
  return made;
}();
const tarvex_version_t VERSION = {.major = 0, .minor = 1, .timestamp = 0, .branch_id = 0};

}  // namespace

extern "C" {
TARVEX_API extern const tarvex_module_descriptor_t tarvex_gridftp_server_intruder_module = {
    "intruder",
    [] { return tarvex_extension_registry_add(&tarvex_i_gfs_dsi_registry, "intruder", nullptr, &STORAGE); },
    [] { return tarvex_extension_registry_remove(&tarvex_i_gfs_dsi_registry, "intruder"); },
    nullptr,
    nullptr,
    &VERSION,
    nullptr};
}
