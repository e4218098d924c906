#pragma once

#include <functional>

namespace tarvex::server {

struct session;

/// Ends the storage's session and starts a new one, which knows nothing of what came before, then calls `then`. When
/// none can be had the client is sent away with a 421. I/O thread.
void session_renew_storage(session& session, std::function<void(server::session&)> then);

}  // namespace tarvex::server
