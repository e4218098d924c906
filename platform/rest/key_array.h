#pragma once

#include "tarvex_dsi_rest.h"

#include <span>

namespace tarvex::rest {

/// The pairs of a list; none for null.
[[nodiscard]] inline std::span<const tarvex_dsi_rest_key_value_t> pairs_of(
    const tarvex_dsi_rest_key_array_t* array) noexcept {
  if (array == nullptr || array->key_value == nullptr) return {};
  return {array->key_value, array->count};
}

}  // namespace tarvex::rest
