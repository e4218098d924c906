#pragma once

#include "api/call.h"
#include "store/session_store.h"

#include <string>

namespace tarvex::emulator {

/// The session that a request names, open and the caller's own. Throws problem 400, 403, 404, 410. Inside a
/// transaction.
[[nodiscard]] upload_session session_named(const call& of);

/// Ends a session: committed or aborted. Inside a transaction.
void session_end(const call& of, const upload_session& session);

/// The SHA-1 (20 bytes) in a Digest header, "sha=<base64>", whatever the case of "sha". Throws 400.
[[nodiscard]] std::string session_expected_digest(const call& of);

/// A session as Box shows it. Inside a transaction.
[[nodiscard]] json_ptr session_json(const call& of, const upload_session& session);

/// `{"part_id":..,"offset":..,"size":..,"sha1":..}`.
[[nodiscard]] json_ptr session_part_json(const upload_part& part);

}  // namespace tarvex::emulator
