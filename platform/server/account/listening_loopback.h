#pragma once

#include "account/sign_in_link.h"
#include "tarvex_common.hpp"

#include <cstdint>
#include <vector>

namespace tarvex::server {

/// Sockets that listen on this host alone, where the redirect's host points: "localhost" is both 127.0.0.1 and ::1,
/// since browsers take either, and somebody else who listens on the other would get what is meant for us.
/// \param port  filled: the same for all of them; the redirect's, or a free one
/// \return non-blocking sockets. Throws account_failure.
[[nodiscard]] std::vector<descriptor> listen_on_loopback(const redirect_address& redirect, std::uint16_t& port);

}  // namespace tarvex::server
