#pragma once

#include <string>

#include "api/call.h"
#include "store/sessions.h"

namespace tarvex::emulator {

/// The session that a request names, open and the caller's own. Throws problem 400, 403, 404, 410. Inside a
/// transaction.
[[nodiscard]] upload_session session_open(const call& of);

/// `{"part_id":..,"offset":..,"size":..,"sha1":..}`.
[[nodiscard]] json_ptr session_part_json(const upload_part& part);

/// Reads the body of a part into the session's file and enters the part. `expected` is the announced SHA-1, 20 bytes.
/// Throws problem: 416 for a range that does not fit or is there already, 409 while the same part is being stored, 412
/// for another digest. Not inside a transaction.
[[nodiscard]] upload_part part_receive(call& of, const std::string& expected);

/// SHA-1 (20 bytes) of the whole file, all parts of which are there. Not inside a transaction.
[[nodiscard]] std::string part_whole_digest(const call& of, const upload_session& session);

}  // namespace tarvex::emulator
