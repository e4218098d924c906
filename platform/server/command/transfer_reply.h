#pragma once

#include "storage/operation.h"

namespace tarvex::server {

/// Whether a data connection is prepared; answers 425 itself when none is.
bool transfer_possible(session& session);

/// The final reply of an operation that used the data channel, and its line in the log.
void transfer_answer(operation& op);

}  // namespace tarvex::server
