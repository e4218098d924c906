/// \file
/// A download of one file in ranges that are fetched side by side.
#pragma once

#include "content_version.h"
#include "request.h"

namespace tarvex::box {

/// What of a file is to go to the client.
struct range_wanted {
  const char* id;
  tarvex_off_t offset;
  tarvex_off_t length;  ///< -1: to the end
  bool known_version;   ///< the version is the one of an earlier range, which this one has to be of
};

/// What a download in ranges leaves to be fetched in one stream, because its address gives no parts of the file.
struct range_leftover {
  std::string url = {};  ///< the address
  /// First bytes and lengths (-1: to the end) of what was not handed on, in order; empty: nothing is left.
  std::vector<std::pair<tarvex_off_t, tarvex_off_t>> gaps = {};
};

/// Whether so many bytes are worth several connections.
bool ranges_worth(uint64_t bytes);

/// Fetches what is wanted from one download address, which is asked for with one content request, and again when it
/// expires, and hands it to the operation. Blocks until all writes are over and no thread is at work.
/// \param version  as the file's record had it before; what the answers tell of it is entered
/// \param left     takes what is left where the address gives no parts of the file, or not of the file as recorded;
///                 that is a success
[[nodiscard]] tarvex_result_t ranges_send(tarvex_gfs_operation_t op, tarvex_box_session_t* box,
                                          const error_source& source, const range_wanted& wanted,
                                          content_version& version, range_leftover& left);

}  // namespace tarvex::box
