#include "base/leak_check.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#include <sys/prctl.h>
#endif

namespace tarvex::server {

bool leak_check() {
#ifdef __SANITIZE_ADDRESS__
  // The check attaches to its own process from outside.
  prctl(PR_SET_DUMPABLE, 1);
  return __lsan_do_recoverable_leak_check() == 0;
#else
  return true;
#endif
}

}  // namespace tarvex::server
