#pragma once

#include "command/handler.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace tarvex::server {

class session;

/// A checksum that a client asks for.
struct checksum_request {
  std::string verb;
  std::string path;
  std::string algorithm;  ///< as checksum_name has it, or of those that the storage computes
  std::int64_t offset = 0;
  std::int64_t length = -1;  ///< -1: to the end
  bool progress = false;     ///< 113 replies while it runs
  /// Answers with the digest, in lower-case hex; `size` is the file's.
  std::function<void(session& client, const std::string& digest, std::int64_t size)> answer;

  bool whole() const { return offset == 0 && length < 0; }
};

/// Computes it: the storage does for whole files what it has announced, without leaving a trace at Box where the
/// account may only read; everything else comes of what the storage sends of the file, read once. Answers the client
/// itself when that fails, when the range does not lie within the file, or when the path is no file's.
handled checksum_answer(session& client, checksum_request request);

}  // namespace tarvex::server
