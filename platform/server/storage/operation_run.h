#pragma once

struct tarvex_gfs_operation_s;

namespace tarvex::server {

/// Runs an operation's work, and what has to stand around it so that the client is told the truth and other sessions
/// know of the change. Operation thread; every operation comes this way.
///
/// 1. `operation_prepare`: what the storage knows of the paths is made to be true.
/// 2. The work. A request that may change something is entered for the other sessions before it goes out.
/// 3. A failure for want of knowledge is repaired, once, and the work run again, as long as no request has gone out
/// that
///    may have changed something and no byte has flowed.
/// 4. `operation_verify`: where the answers leave open what was done, Box is looked at before the client is told.
/// 5. The change is entered for the other sessions, as known to this one's storage or as known to nobody.
void operation_run(tarvex_gfs_operation_s& op) noexcept;

}  // namespace tarvex::server
