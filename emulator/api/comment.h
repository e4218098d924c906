#pragma once

#include "api/call.h"

namespace tarvex::emulator {

/// POST /2.0/comments on a file or in reply to a comment, GET, PUT, DELETE of one, and those of a file.
[[nodiscard]] response comment_create(call& of);
[[nodiscard]] response comment_get(call& of);
[[nodiscard]] response comment_update(call& of);
[[nodiscard]] response comment_delete(call& of);
[[nodiscard]] response comments_of_file(call& of);

}  // namespace tarvex::emulator
