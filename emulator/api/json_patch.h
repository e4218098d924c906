#pragma once

#include "base/json.h"

#include <string>

namespace tarvex::emulator {

/// Applies a JSON patch (RFC 6902: add, replace, remove, test, move, copy) to a flat object, all of it or nothing.
/// Paths name members of the object itself ("/key", with ~0 and ~1). Returns an empty text, or why it failed; then
/// `target` is unchanged.
[[nodiscard]] std::string json_patch_apply(json_t* target, const json_t* patch);

/// Whether a document has the form of a patch: an array of objects with `op` and `path`.
[[nodiscard]] bool json_patch_is_one(const json_t* patch);

}  // namespace tarvex::emulator
