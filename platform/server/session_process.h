#pragma once

#include "session/session_setup.h"

namespace tarvex::server {

/// Serves one control connection from greeting to end. Runs in a process of its own, which ends with what this
/// returns as exit status: 0 after an orderly end.
///
/// SIGTERM ends the session: a running operation is cancelled, the client gets a 421.
int session_run(const session_setup& setup);

}  // namespace tarvex::server
