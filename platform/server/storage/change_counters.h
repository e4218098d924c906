#pragma once

#include "session/session.h"

#include <atomic>
#include <cstdint>
#include <string_view>

namespace tarvex::server {

/// The counter of an account's changes, the same in every process that shares `counters`. Any thread.
std::atomic<std::uint64_t>& change_counter(change_counters& counters, std::string_view account);

}  // namespace tarvex::server
