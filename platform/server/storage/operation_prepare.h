#pragma once

struct tarvex_gfs_operation_s;

namespace tarvex::server {

// What the storage knows of an operation's paths. Operation thread.

/// Makes it true before the work: the storage's session is started anew where something on the paths was removed,
/// renamed, moved or replaced since it began; the folder is listed where a name is about to be made that others have
/// added; and each folder above is looked at, since a path that leads through a file is none: files and folders are
/// numbered apart in Box, so that another folder would answer for the file's number.
/// \return false when the operation is over with that, and has its result.
bool operation_prepare(tarvex_gfs_operation_s& op);

/// Learns after a failure what the storage did not know: lists the folders along the paths that others have added to.
/// \return whether something was listed, so that the work may come to another end. A listing that fails becomes the
/// operation's result: that something is missing is said only after a look that succeeded.
bool operation_learn(tarvex_gfs_operation_s& op);

}  // namespace tarvex::server
