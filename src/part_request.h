/// \file
/// The request that sends one part of an upload session.
#pragma once

#include "digest.h"
#include "request.h"

#include <cstdint>
#include <string>

namespace tarvex::box {

/// One part, in memory.
struct part_content {
  int index = 0;
  const char* data = nullptr;  ///< borrowed
  size_t length = 0;
  sha1_digest sha1 = {};
};

/// File offset of a part.
uint64_t part_offset(const tarvex_box_upload_session_t& upload, int index);

/// URL of the session at Box.
std::string part_url(const tarvex_box_upload_session_t& upload);

/// The request; how often it is tried and whose token it has is left to the caller.
/// \param block  what its body is read from, for as long as the request
request part_request(const error_source& source, const tarvex_box_upload_session_t& upload, const part_content& part,
                     tarvex_dsi_rest_write_block_arg_t& block);

}  // namespace tarvex::box
