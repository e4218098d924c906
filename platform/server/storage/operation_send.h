#pragma once

#include "storage/operation.h"

#include <memory>
#include <string>
#include <string_view>

namespace tarvex::server {

/// Makes an operation that has the storage send a range of a file: over its `transfer` or into its `sink`, whichever
/// the caller sets. It can be run again until a byte was sent. The storage has to have a send function.
std::unique_ptr<operation> send_make(session& session, std::string_view verb, const std::string& path,
                                     byte_range range);

}  // namespace tarvex::server
