#pragma once

#include "storage/exchange_log.h"

struct tarvex_gfs_operation_s;

namespace tarvex::server {

/// Judges by what Box said last whether the failure of an operation may pass, for errors that name no reply code.
void note_default_code(tarvex_gfs_operation_s& op, const exchange_summary& heard);

/// Makes a failure to look out of a failure that says that something is not there, or is, though the listing that would
/// know it has failed.
void doubt_what_was_not_seen(tarvex_gfs_operation_s& op, const exchange_summary& heard);

/// Looks at Box where its answers leave open what an operation has done, and makes the result what is true: done is
/// done, whatever was answered, and what was not done is no success. Sets `certain`. Operation thread, after the work.
///
/// Nothing is asked where the answers say it all. Where Box cannot be looked at, the result says that nobody knows.
void operation_verify(tarvex_gfs_operation_s& op);

}  // namespace tarvex::server
