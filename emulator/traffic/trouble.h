#pragma once

#include "base/settings.h"
#include "http/message.h"
#include "traffic/chance.h"
#include "traffic/fault.h"

#include <optional>

namespace tarvex::emulator {

/// The number in the journal of a fault that nobody scripted.
constexpr std::int64_t TROUBLE_NUMBER = -1;

/// Draws what happens to a request by the probabilities of the settings; nothing most of the time. `is_part`: it is a
/// part of an upload session. Takes as many numbers off `draws` whatever comes of them.
[[nodiscard]] std::optional<fault_action> trouble_draw(const settings& set, const request& in, bool is_part,
                                                       chance_stream& draws);

}  // namespace tarvex::emulator
