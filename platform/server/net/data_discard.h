#pragma once

#include "net/event_loop.h"

#include <memory>

namespace tarvex::server {

class data_socket;

/// Takes a peer's data for a moment and drops them, until it has sent all: a peer that is closed upon while it sends
/// may lose the reply that tells it why. I/O thread; does not wait.
void data_discard(event_loop& loop, std::unique_ptr<data_socket> connection);

}  // namespace tarvex::server
