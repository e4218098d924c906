#pragma once

#include "storage/operation.h"

#include <functional>
#include <string>
#include <string_view>

namespace tarvex::server {

/// A checksum that a client asks for.
struct checksum_request {
  std::string verb;
  std::string path;
  std::string algorithm;  ///< as checksum_name has it, or of those that the storage computes
  std::int64_t offset = 0;
  std::int64_t length = -1;  ///< -1: to the end
  bool progress = false;     ///< 113 replies while it runs
  /// Answers with the digest, in lower-case hex; `size` is the file's.
  std::function<void(session& session, const std::string& digest, std::int64_t size)> answer;
};

/// Whether the storage computes an algorithm's checksum of a whole file itself.
bool checksum_by_storage(const session& session, std::string_view algorithm);

/// Computes it: the storage does for whole files what it has announced, everything else comes of what the storage
/// sends of the file, read once. Answers the client itself when that fails, when the range does not lie within the
/// file, or when the path is no file's.
void checksum_start(session& session, checksum_request request);

}  // namespace tarvex::server
