#pragma once

#include "session/session_setup.h"

namespace tarvex::server {

/// Serves one control connection from greeting to end. Runs in a process of its own, which ends with what this
/// returns as exit status: 0 after an orderly end.
///
/// SIGTERM ends the session with a 421, at once when no command runs. A command that runs gets `grace_time`; then a
/// transfer ends with 426, any other command with the 421.
int session_run(const session_setup& setup);

}  // namespace tarvex::server
