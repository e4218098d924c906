#pragma once

#include <string>
#include <vector>

namespace tarvex::server {

/// A file or folder that a confined process may use.
struct accessible_place {
  std::string path;
  bool writable = false;  ///< files in the folder may be made, written and removed, and folders made
};

/// Version of the kernel's Landlock (landlock(7)); 0: it has none, or it is off.
[[nodiscard]] int file_access_version();

/// Confines the calling process, for good and with all that it starts, to these places; those that do not exist are
/// left out. Descriptors that are open stay as they are. Needs PR_SET_NO_NEW_PRIVS. A process with one thread.
/// \return errno; 0: done.
[[nodiscard]] int file_access_confine(const std::vector<accessible_place>& places);

}  // namespace tarvex::server
