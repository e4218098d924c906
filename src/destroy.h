/// \file
/// Release of the session record, shared by a failed start and by the session's end.
#pragma once

#include "handles.h"
#include "tarvex_box_common.h"

#include <memory>

namespace tarvex::box {

/// Releases the record and all that start stored in it, complete or not. Null in, nothing happens.
void session_release(tarvex_box_session_t* session) noexcept;

using session_ptr = std::unique_ptr<tarvex_box_session_t, handle_releaser<session_release>>;

}  // namespace tarvex::box
