#pragma once

#include "net/control_line.h"

#include <boost/asio/awaitable.hpp>

namespace tarvex::server {

class session;

/// Runs a line whose turn it is, and answers it.
boost::asio::awaitable<void> command_run(session& client, control_line line);

/// Whether the line may be run while the command before it is not over yet.
bool command_need_not_wait(const control_line& line);

}  // namespace tarvex::server
