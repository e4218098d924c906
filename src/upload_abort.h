/// \file
/// Upload sessions that nobody can continue any more.
#pragma once

#include "error.h"
#include "tarvex_box_common.h"

namespace tarvex::box {

/// Has Box drop what it holds of an upload, unless the commit may have been carried out. Nobody waits for the answer,
/// and nobody could mend a failure. The record stays the caller's.
void upload_abort(tarvex_box_session_t* box, const error_source& source,
                  const tarvex_box_upload_session_t& upload) noexcept;

/// Drops what an earlier store of the path left, at Box and in the table, if sessions are aborted at all.
void upload_supersede(tarvex_box_session_t* box, const error_source& source, const char* path) noexcept;

}  // namespace tarvex::box
