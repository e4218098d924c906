#include "confine/system_calls.h"

#include "tarvex_common.hpp"

#include <fcntl.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace tarvex::server {

namespace {

using filter_ptr = owner<void, seccomp_release>;

// By name: the list is the same for every architecture, and what one does not have is left out.
constexpr const char* ALLOWED_CALLS[] = {
    // memory
    "brk", "madvise", "membarrier", "mremap", "munmap",
    // threads and time
    "clock_getres", "clock_gettime", "clock_nanosleep", "exit", "exit_group", "futex", "get_robust_list", "getitimer",
    "gettid", "gettimeofday", "nanosleep", "restart_syscall", "rseq", "rt_sigaction", "rt_sigpending", "rt_sigprocmask",
    "rt_sigreturn", "rt_sigtimedwait", "sched_getaffinity", "sched_yield", "set_robust_list", "set_tid_address",
    "sigaltstack", "time", "times",
    // what the process is
    "arch_prctl", "getcwd", "getegid", "geteuid", "getgid", "getgroups", "getpgrp", "getpid", "getppid", "getrandom",
    "getresgid", "getresuid", "getrusage", "getuid", "sysinfo", "umask", "uname",
    // events
    "epoll_create", "epoll_create1", "epoll_ctl", "epoll_pwait", "epoll_pwait2", "epoll_wait", "eventfd", "eventfd2",
    "pipe", "pipe2", "poll", "ppoll", "pselect6", "select", "signalfd", "signalfd4", "timerfd_create",
    "timerfd_gettime", "timerfd_settime",
    // files; which ones is Landlock's matter
    "_llseek", "access", "close", "close_range", "dup", "dup2", "dup3", "faccessat", "faccessat2", "fadvise64",
    "fallocate", "fdatasync", "flock", "fstat", "fstatfs", "fsync", "ftruncate", "getdents", "getdents64", "lseek",
    "lstat", "mkdir", "mkdirat", "newfstatat", "open", "openat", "pread64", "preadv", "preadv2", "pwrite64", "pwritev",
    "pwritev2", "read", "readlink", "readlinkat", "readv", "stat", "statfs", "statx", "unlink", "unlinkat", "write",
    "writev",
    // connections
    "accept", "accept4", "bind", "connect", "getpeername", "getsockname", "getsockopt", "listen", "recvfrom",
    "recvmmsg", "recvmsg", "sendmmsg", "sendmsg", "sendto", "setsockopt", "shutdown", "socketpair"};

/// A call that is allowed when one of its arguments, masked, has a value.
struct conditional_call {
  const char* name;
  unsigned argument;
  scmp_datum_t mask;
  scmp_datum_t value;
};
constexpr scmp_datum_t WHOLE_ARGUMENT = ~scmp_datum_t{0};
constexpr scmp_datum_t INT_ARGUMENT = 0xffffffffU;  // of an int, whose upper half is anything
constexpr conditional_call CONDITIONAL_CALLS[] = {
    // a thread, and no process; glibc falls back from clone3, whose flags a filter cannot see
    {"clone", 0, CLONE_THREAD, CLONE_THREAD},
    // memory is written or run, never both
    {"mmap", 2, PROT_WRITE, 0},
    {"mmap", 2, PROT_EXEC, 0},
    {"mmap2", 2, PROT_WRITE, 0},
    {"mmap2", 2, PROT_EXEC, 0},
    {"mprotect", 2, PROT_EXEC, 0},
    {"socket", 0, INT_ARGUMENT, AF_INET},
    {"socket", 0, INT_ARGUMENT, AF_INET6},
    {"socket", 0, INT_ARGUMENT, AF_NETLINK},
    {"fcntl", 1, INT_ARGUMENT, F_DUPFD},
    {"fcntl", 1, INT_ARGUMENT, F_DUPFD_CLOEXEC},
    {"fcntl", 1, INT_ARGUMENT, F_GETFD},
    {"fcntl", 1, INT_ARGUMENT, F_SETFD},
    {"fcntl", 1, INT_ARGUMENT, F_GETFL},
    {"fcntl", 1, INT_ARGUMENT, F_SETFL},
    {"fcntl", 1, INT_ARGUMENT, F_GETLK},
    {"fcntl", 1, INT_ARGUMENT, F_SETLK},
    {"fcntl", 1, INT_ARGUMENT, F_SETLKW},
    {"ioctl", 1, INT_ARGUMENT, FIONBIO},
    {"ioctl", 1, INT_ARGUMENT, FIONREAD},
    {"ioctl", 1, INT_ARGUMENT, TCGETS},
    {"prctl", 0, INT_ARGUMENT, PR_SET_NAME},
    {"prctl", 0, INT_ARGUMENT, PR_GET_NAME},
    // limits are asked for, one's own
    {"prlimit64", 2, WHOLE_ARGUMENT, 0},
    {"getrlimit", 0, 0, 0},
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// What the sanitizers' run-time libraries do besides: their check for leaks attaches to the process from a child.
constexpr conditional_call SANITIZER_CALLS[] = {
    {"mprotect", 2, 0, 0},
    {"mmap", 2, 0, 0},
    {"prctl", 0, 0, 0},
    {"clone", 0, 0, 0},
    {"ptrace", 0, 0, 0},
    {"wait4", 0, 0, 0},
    {"sched_setaffinity", 0, 0, 0},
};
#else
constexpr std::array<conditional_call, 0> SANITIZER_CALLS = {};
#endif

/// \return errno; a call that this architecture does not have is no error
int allow_call(scmp_filter_ctx filter, const conditional_call& call) {
  const int number = seccomp_syscall_resolve_name(call.name);
  if (number < 0) return 0;
  const scmp_arg_cmp condition = {
      .arg = call.argument, .op = SCMP_CMP_MASKED_EQ, .datum_a = call.mask, .datum_b = call.value};
  const bool always = call.mask == 0;
  const int error = always ? seccomp_rule_add_array(filter, SCMP_ACT_ALLOW, number, 0, nullptr)
                           : seccomp_rule_add_array(filter, SCMP_ACT_ALLOW, number, 1, &condition);
  return error == -EEXIST ? 0 : -error;
}

int add_call_rules(scmp_filter_ctx filter) {
  int error = 0;
  for (const char* const name : ALLOWED_CALLS) {
    if (error == 0) error = allow_call(filter, {name, 0, 0, 0});
  }
  for (const conditional_call& call : CONDITIONAL_CALLS) {
    if (error == 0) error = allow_call(filter, call);
  }
  for (const conditional_call& call : SANITIZER_CALLS) {
    if (error == 0) error = allow_call(filter, call);
  }
  // To itself, by the second filter of `confine`.
  for (const char* const name : {"tgkill", "kill", "rt_tgsigqueueinfo"}) {
    if (error == 0) error = allow_call(filter, {name, 0, 0, 0});
  }
  if (error == 0) error = -seccomp_rule_add(filter, SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(clone3), 0);
  return error;
}

/// The filter as the kernel takes it. \return errno
int export_program(scmp_filter_ctx filter, std::vector<sock_filter>& out) {
  const descriptor file(memfd_create("seccomp", MFD_CLOEXEC));
  if (!file) return errno;
  if (const int error = seccomp_export_bpf(filter, file.get()); error != 0) return -error;
  struct stat status = {};
  if (fstat(file.get(), &status) != 0) return errno;
  const auto size = static_cast<std::size_t>(status.st_size);
  out.resize(size / sizeof(sock_filter));
  return pread(file.get(), out.data(), size, 0) == static_cast<ssize_t>(size) ? 0 : EIO;
}

int install_program(const std::vector<sock_filter>& program) {
  const sock_fprog handed = {.len = static_cast<unsigned short>(program.size()),
                             .filter = const_cast<sock_filter*>(program.data())};  // the kernel only reads it
  return syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &handed) == 0 ? 0 : errno;
}

/// Filters add up: what this one lets through still has to pass the other. \return errno
int signal_only_itself() {
  const filter_ptr all(seccomp_init(SCMP_ACT_ALLOW));
  if (!all) return ENOMEM;
  const auto self = static_cast<scmp_datum_t>(getpid());
  const scmp_arg_cmp others = {.arg = 0, .op = SCMP_CMP_NE, .datum_a = self, .datum_b = 0};
  for (const int number : {SCMP_SYS(tgkill), SCMP_SYS(kill), SCMP_SYS(rt_tgsigqueueinfo)}) {
    const int error = seccomp_rule_add_array(all.get(), SCMP_ACT_ERRNO(EPERM), number, 1, &others);
    if (error != 0) return -error;
  }
  std::vector<sock_filter> program;
  if (const int error = export_program(all.get(), program); error != 0) return error;
  return install_program(program);
}

}  // namespace

std::string system_calls::compile() {
  const filter_ptr list(seccomp_init(SCMP_ACT_ERRNO(EPERM)));
  if (!list) return std::strerror(ENOMEM);
  // A tree of the numbers: what a call costs does not grow with the list.
  (void)seccomp_attr_set(list.get(), SCMP_FLTATR_CTL_OPTIMIZE, 2);
  int error = add_call_rules(list.get());
  if (error == 0) error = export_program(list.get(), program_);
  if (error != 0) return std::strerror(error);
  if (prctl(PR_GET_SECCOMP, 0, 0, 0, 0) < 0) return std::strerror(errno);
  return {};
}

/// The second filter first: to make it takes calls that the list lacks.
int system_calls::confine() const {
  if (program_.empty()) return ENOSYS;
  if (const int error = signal_only_itself(); error != 0) return error;
  return install_program(program_);
}

}  // namespace tarvex::server
