// What a session cannot do any more once it is confined, tried from inside.
#include "confine/sandbox.h"

#include "confine/session_places.h"
#include "support/temporary_folder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/bpf.h>
#include <netdb.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace tarvex::server::test {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;  // what the sanitizers need is let through
#else
constexpr bool SANITIZED = false;
#endif

/// errno of what failed; 0: it went well.
int of(long status) {
  return status < 0 ? errno : 0;
}

int open_errno(const std::string& path, int flags) {
  const int file = open(path.c_str(), flags | O_CLOEXEC, 0600);
  const int error = of(file);
  if (file >= 0) close(file);
  return error;
}

class Sandbox : public ::testing::Test {
 protected:
  Sandbox() {
    folder_.write("outside", "secret");
    std::filesystem::create_directory(folder_.path("reading"));
    std::filesystem::create_directory(folder_.path("writing"));
    folder_.write("reading/file", "text");
    folder_.write("writing/file", "text");
    places_ = {{folder_.path("reading"), false}, {folder_.path("writing"), true}, {folder_.path("missing"), true}};
  }

  /// What `act` returns in a process that has entered the sandbox; 200: it could not be entered, 201: it died.
  int inside(const std::function<int()>& act) const {
    const pid_t child = fork();
    if (child == 0) {
      sandbox confined;
      if (!confined.prepare(sandbox_mode::attempt).empty() || !confined.enter(places_).empty()) _exit(200);
      _exit(act());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 201;
  }

  temporary_folder folder_;
  std::vector<accessible_place> places_;
};

TEST_F(Sandbox, RefusesWhatASessionHasNoNeedOf) {
  const pid_t parent = getpid();
  char secret[] = "secret";
  struct row {
    const char* what;
    std::function<int()> act;
    bool sanitizers_need_it = false;
  };
  const row rows[] = {
      {"execve",
       [] {
         char name[] = "/bin/true";
         char* arguments[] = {name, nullptr};
         return of(execve(name, arguments, nullptr));
       }},
      {"a process of its own", [] { return of(fork()); }, true},
      {"ptrace", [=] { return of(ptrace(PTRACE_ATTACH, parent, nullptr, nullptr)); }, true},
      {"another's memory",
       [=, &secret] {
         char copy[sizeof secret];
         const iovec mine = {copy, sizeof copy};
         const iovec theirs = {secret, sizeof secret};
         return of(process_vm_readv(parent, &mine, 1, &theirs, 1, 0));
       }},
      {"another's memory by /proc",
       [=] { return open_errno("/proc/" + std::to_string(parent) + "/mem", O_RDONLY) == 0 ? 0 : EPERM; }},
      {"signals to others", [=] { return of(kill(parent, 0)); }},
      {"bpf", [] { return of(syscall(SYS_bpf, BPF_MAP_CREATE, nullptr, 0)); }},
      {"io_uring", [] { return of(syscall(SYS_io_uring_setup, 1, nullptr)); }},
      {"keyctl", [] { return of(syscall(SYS_keyctl, 0, 0, 0, 0, 0)); }},
      {"mount", [] { return of(mount("none", "/tmp", "tmpfs", 0, nullptr)); }},
      {"chroot", [] { return of(chroot("/")); }},
      {"a namespace", [] { return of(syscall(SYS_unshare, 0x10000000)); }},
      {"memory that is written and run",
       [] {
         void* const memory =
             mmap(nullptr, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
         return memory == MAP_FAILED ? errno : 0;
       },
       true},
      {"a local socket", [] { return of(socket(AF_UNIX, SOCK_STREAM, 0)); }},
      {"a raw socket of the network", [] { return of(socket(AF_PACKET, SOCK_RAW, 0)); }},
  };
  for (const row& row : rows) {
    if (SANITIZED && row.sanitizers_need_it) continue;
    EXPECT_EQ(inside(row.act), EPERM) << row.what;
  }
}

TEST_F(Sandbox, OpensItsOwnPlacesOnly) {
  if (file_access_version() == 0) GTEST_SKIP() << "this kernel has no Landlock";
  struct row {
    const char* what;
    std::string path;
    int flags;
    int error;
  };
  const row rows[] = {
      {"reads", folder_.path("reading/file"), O_RDONLY, 0},
      {"writes what it may only read", folder_.path("reading/file"), O_WRONLY, EACCES},
      {"makes a file there", folder_.path("reading/new"), O_WRONLY | O_CREAT, EACCES},
      {"writes", folder_.path("writing/file"), O_RDWR | O_TRUNC, 0},
      {"makes a file", folder_.path("writing/new"), O_RDWR | O_CREAT | O_EXCL, 0},
      {"makes one without a name", folder_.path("writing"), O_RDWR | O_TMPFILE, 0},
      {"reads outside", folder_.path("outside"), O_RDONLY, EACCES},
      {"goes out by ..", folder_.path("reading/../outside"), O_RDONLY, EACCES},
      {"reads the system's", "/etc/hostname", O_RDONLY, EACCES},
  };
  for (const row& row : rows) EXPECT_EQ(inside([&] { return open_errno(row.path, row.flags); }), row.error) << row.what;
}

TEST_F(Sandbox, LetsASessionWork) {
  const int done = inside([] {
    int ran = 0;
    std::thread([&ran] { ran = 1; }).join();
    addrinfo* found = nullptr;
    const bool resolved = getaddrinfo("127.0.0.1", "80", nullptr, &found) == 0;
    if (found) freeaddrinfo(found);
    const int listening = socket(AF_INET, SOCK_STREAM, 0);
    return ran == 1 && resolved && listen(listening, 1) == 0 && pthread_kill(pthread_self(), 0) == 0 ? 0 : 1;
  });
  EXPECT_EQ(done, 0);
}

TEST_F(Sandbox, SessionsReadNothingThatTheyAreNotGiven) {
  configuration config;
  config.accounts_file = folder_.path("reading/file");
  config.spool_directory = folder_.path("writing");
  places_ = session_places(config);
  if (file_access_version() == 0) GTEST_SKIP() << "this kernel has no Landlock";
  EXPECT_EQ(inside([&] { return open_errno(config.accounts_file, O_RDONLY); }), EACCES);
  EXPECT_EQ(inside([&] { return open_errno("/etc/ssl/certs", O_RDONLY | O_DIRECTORY); }), 0);
  for (const char* const path : {"/etc/shadow", "/etc/fstab", "/root", SANITIZED ? "/root" : "/proc/self/maps", "/tmp"})
    EXPECT_EQ(inside([&] { return open_errno(path, O_RDONLY); }), EACCES) << path;
  EXPECT_EQ(inside([&] { return open_errno(folder_.path("outside"), O_RDONLY); }), EACCES);
}

}  // namespace
}  // namespace tarvex::server::test
