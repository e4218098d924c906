#pragma once

#include "api/route.h"
#include "base/settings.h"
#include "traffic/chance.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tarvex::emulator {

/// What the settings say of the traffic of an address, by what the address is for.

/// Milliseconds before the answer, drawn within the jitter.
[[nodiscard]] std::int64_t route_latency_ms(const settings& set, route_purpose purpose, chance_stream& draws);

/// Bytes a second of a connection that serves it; 0: no limit.
[[nodiscard]] std::int64_t route_rate(const settings& set, route_purpose purpose);

/// Whether requests there meet the troubles that have a probability.
[[nodiscard]] bool route_has_trouble(const settings& set, route_purpose purpose);

/// The kind of a request for a chance_counter: its address and its range, without ids, which differ from run to run.
[[nodiscard]] std::string route_kind(const route_found& found, const request& in);

}  // namespace tarvex::emulator
