// Measures the spacing that processes of one user keep between their requests to Box. Each process asks for its next
// request as soon as it may, as a session under full load does, and notes the stamp that the request got. The parent
// puts the stamps of all processes in order and prints one line of JSON about the gaps between them.
//
//   pacing_gaps PROCESSES SECONDS [PER_SECOND]

#include "tarvex_box_common.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int64_t NANOSECONDS_PER_SECOND = 1'000'000'000;

struct options {
  int processes = 0;
  int seconds = 0;
  int per_second = 16;
};

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

std::optional<int> parse_count(std::string_view text, int most) {
  int number = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool whole = error == std::errc() && stop == text.data() + text.size();
  return whole && number > 0 && number <= most ? std::optional(number) : std::nullopt;
}

std::optional<options> parse(std::span<char*> arguments) {
  if (arguments.size() < 3 || arguments.size() > 4) return std::nullopt;
  const auto processes = parse_count(arguments[1], 1000);
  const auto seconds = parse_count(arguments[2], 3600);
  const auto per_second = arguments.size() == 4 ? parse_count(arguments[3], 1'000'000) : options().per_second;
  if (!processes || !seconds || !per_second) return std::nullopt;
  return options{*processes, *seconds, *per_second};
}

/// A directory for the pacing file, gone at the end.
class private_directory {
 public:
  private_directory() : path_(std::filesystem::temp_directory_path() / "pacing-gaps-XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) fail("mkdtemp");
  }
  private_directory(const private_directory&) = delete;
  private_directory& operator=(const private_directory&) = delete;
  ~private_directory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const char* path() const { return path_.c_str(); }

 private:
  std::string path_;
};

int64_t monotonic_now() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * NANOSECONDS_PER_SECOND + now.tv_nsec;
}

/// The last stamp in the shared record. No lock is taken for it: another process mostly holds the lock while it waits
/// for its turn, and the record changes only at the end of that wait. Seconds that changed meanwhile are read again.
int64_t last_stamp(const volatile tarvex_box_retry_shared_s& shared) {
  for (;;) {
    const int64_t seconds = shared.last.tv_sec;
    const int64_t nanoseconds = shared.last.tv_nsec;
    if (shared.last.tv_sec == seconds) return seconds * NANOSECONDS_PER_SECOND + nanoseconds;
  }
}

/// The work of one process: requests until the time is over, then all stamps into the pipe.
void request(const options& asked, int start_fd, int stamps_fd) {
  tarvex_box_retry_t retry = {};
  tarvex_i_box_retry_state_create("1", asked.per_second, &retry);
  if (retry.fd == -1) {
    std::fputs("pacing_gaps: the pacing file could not be used\n", stderr);
    _exit(1);
  }
  char none;
  if (read(start_fd, &none, 1) != 0) _exit(1);  // the parent closes the pipe when all processes are there

  std::vector<int64_t> stamps;
  const int64_t end = monotonic_now() + asked.seconds * NANOSECONDS_PER_SECOND;
  while (monotonic_now() < end) {
    tarvex_i_box_retry_delay(0, &retry);
    stamps.push_back(last_stamp(*retry.shared));
  }
  tarvex_i_box_retry_state_destroy(&retry);

  const auto bytes = std::as_bytes(std::span(stamps));
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t count = write(stamps_fd, bytes.data() + sent, bytes.size() - sent);
    if (count < 0) _exit(1);
    sent += static_cast<size_t>(count);
  }
  _exit(0);
}

struct pipe_ends {
  int read_end;
  int write_end;
};

pipe_ends make_pipe() {
  int ends[2];
  if (pipe(ends) != 0) fail("pipe");
  return {ends[0], ends[1]};
}

std::vector<int64_t> read_stamps(int fd) {
  std::string bytes;
  char buffer[65536];
  for (ssize_t count; (count = read(fd, buffer, sizeof buffer)) != 0;) {
    if (count < 0) fail("read");
    bytes.append(buffer, static_cast<size_t>(count));
  }
  std::vector<int64_t> stamps(bytes.size() / sizeof(int64_t));
  std::memcpy(stamps.data(), bytes.data(), stamps.size() * sizeof(int64_t));
  return stamps;
}

bool all_succeeded(int processes) {
  bool good = true;
  for (int status = 0; processes > 0; --processes) good = wait(&status) > 0 && status == 0 && good;
  return good;
}

/// The stamps of all processes in order. Where a process saw the next one's stamp instead of its own, that is one
/// stamp.
std::vector<int64_t> run(const options& asked) {
  const pipe_ends start = make_pipe();
  std::vector<int> stamp_fds;
  for (int i = 0; i < asked.processes; ++i) {
    const pipe_ends stamps = make_pipe();
    const pid_t child = fork();
    if (child < 0) fail("fork");
    if (child == 0) {
      close(start.write_end);
      request(asked, start.read_end, stamps.write_end);
    }
    close(stamps.write_end);
    stamp_fds.push_back(stamps.read_end);
  }
  close(start.read_end);
  close(start.write_end);

  std::vector<int64_t> all;
  for (const int fd : stamp_fds) {
    const auto stamps = read_stamps(fd);
    close(fd);
    all.insert(all.end(), stamps.begin(), stamps.end());
  }
  if (!all_succeeded(asked.processes)) all.clear();
  std::sort(all.begin(), all.end());
  all.erase(std::unique(all.begin(), all.end()), all.end());
  return all;
}

void print(const options& asked, const std::vector<int64_t>& stamps) {
  std::vector<double> gaps_ms;
  for (size_t i = 1; i < stamps.size(); ++i) gaps_ms.push_back(static_cast<double>(stamps[i] - stamps[i - 1]) / 1e6);
  std::sort(gaps_ms.begin(), gaps_ms.end());
  const double span_seconds = static_cast<double>(stamps.back() - stamps.front()) / 1e9;
  const double kept_per_second = static_cast<double>(gaps_ms.size()) / span_seconds;
  std::printf(
      "{\"processes\": %d, \"per_second\": %d, \"requests\": %zu, \"smallest_ms\": %.3f, \"median_ms\": %.3f, "
      "\"largest_ms\": %.3f, \"rate_used\": %.4f}\n",
      asked.processes, asked.per_second, stamps.size(), gaps_ms.front(), gaps_ms[gaps_ms.size() / 2], gaps_ms.back(),
      kept_per_second / asked.per_second);
}

}  // namespace

int main(int argc, char** argv) {
  const auto asked = parse({argv, static_cast<size_t>(argc)});
  if (!asked) {
    std::fputs("usage: pacing_gaps PROCESSES SECONDS [PER_SECOND], whole numbers above 0\n", stderr);
    return 2;
  }
  const private_directory directory;
  tarvex_i_box_retry_path = directory.path();
  const auto stamps = run(*asked);
  if (stamps.size() < 2) {
    std::fputs("pacing_gaps: fewer than two requests came through\n", stderr);
    return 1;
  }
  print(*asked, stamps);
  return 0;
}
