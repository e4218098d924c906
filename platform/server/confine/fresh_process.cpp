#include "confine/fresh_process.h"

#include "tarvex_common.hpp"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace tarvex::server {

void close_others(std::initializer_list<int> kept) {
  std::vector<int> sorted(kept);
  std::sort(sorted.begin(), sorted.end());
  unsigned first = STDERR_FILENO + 1;
  for (const int number : sorted) {
    if (number < static_cast<int>(first)) continue;
    const auto next = static_cast<unsigned>(number);
    if (next > first) (void)close_range(first, next - 1, 0);
    first = next + 1;
  }
  (void)close_range(first, ~0U, 0);
}

void hide_memory() {
  constexpr rlimit NONE = {0, 0};
  (void)setrlimit(RLIMIT_CORE, &NONE);
  (void)prctl(PR_SET_DUMPABLE, 0);
}

void read_nothing_from_stdin() {
  const descriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (nothing) dup2(nothing.get(), STDIN_FILENO);
}

}  // namespace tarvex::server
