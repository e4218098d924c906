/// \file
/// Which version of a file an operation reads. A download that is tried again, or goes on with another range, must not
/// mix two.
#pragma once

#include "response_head.h"
#include "tarvex_gridftp_server.h"

namespace tarvex::rest {

/// Remembers the validators and the total length of the operation's first answer with content (200 or 206), and
/// compares those of later ones with them, as far as both tell. Any thread.
/// \return 451 FILE_CHANGED when they differ
[[nodiscard]] tarvex_result_t check_file_version(tarvex_gfs_operation_t op, const response_head& head);

}  // namespace tarvex::rest
