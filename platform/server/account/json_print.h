#pragma once

#include "base/json.h"

namespace tarvex::server {

/// Prints a document on standard output, for programs and people. Throws std::bad_alloc.
void json_print(const json_t* document);

}  // namespace tarvex::server
