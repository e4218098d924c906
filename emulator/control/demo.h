#pragma once

#include "box/box_state.h"

namespace tarvex::emulator {

/// Gives an account a small tree with always the same contents, where its root is empty.
void demo_fill(box_state& box, const user& owner);

}  // namespace tarvex::emulator
