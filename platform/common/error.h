#pragma once

#include "tarvex_common.h"

namespace tarvex::common {

/// The error behind results that have none of their own: "Operation failed." Static; freeing it does nothing.
tarvex_object_t* failed_error() noexcept;

/// The error of results that no memory was left for. Static; freeing it does nothing.
tarvex_object_t* out_of_memory_error() noexcept;

}  // namespace tarvex::common
