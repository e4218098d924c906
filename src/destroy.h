/// \file
/// Release of the session record, shared by a failed start and by the session's end.
#pragma once

#include "tarvex_box_common.h"
#include "tarvex_common.hpp"

namespace tarvex::box {

/// Releases the record and all that start stored in it, complete or not. Null in, nothing happens.
void session_release(tarvex_box_session_t* session) noexcept;

using session_ptr = owner<tarvex_box_session_t, session_release>;

}  // namespace tarvex::box
