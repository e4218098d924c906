#pragma once

#include "tarvex_common.hpp"

#include <jansson.h>

namespace tarvex::box {

/// `json_decref` is static in each source; this is one function for all, so that the type below is one type.
inline void json_release(json_t* json) noexcept {
  json_decref(json);
}

using json_ptr = owner<json_t, json_release>;  ///< one reference

}  // namespace tarvex::box
