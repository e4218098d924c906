#pragma once

#include "limits/shared_limits.h"

#include <cstddef>
#include <string_view>

namespace tarvex::server {

enum class seat_answer {
  taken,
  limit_reached,
  uncounted  ///< there is no room to count the account
};

/// Counts a session for an account, `limit` at most (0: no limit; counted all the same, for a limit that comes later).
/// \param share  the session's; one seat each
[[nodiscard]] seat_answer account_seat_take(shared_limits& limits, std::size_t share, std::string_view account,
                                            unsigned limit);

/// Gives the session's seat back, if it has one: by the session, or by the listener when the session is no more.
void account_seat_give_back(shared_limits& limits, std::size_t share);

}  // namespace tarvex::server
