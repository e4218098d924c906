/// \file
/// JSON text into jansson's values.
#pragma once

#include <jansson.h>

#include <string_view>

namespace tarvex::rest {

/// Reads a document: an object or an array, with nothing but blanks around it.
///
/// Pages of hundreds of items are most of what Box answers with, and nearly all of their bytes repeat the item before:
/// a member of an array's object that reads as the same member of the object before it becomes a reference to that
/// value and is not made again. Values of one document may therefore be shared: they are to be read, not modified.
/// \return a new reference; null when the text is no JSON, or memory is out.
[[nodiscard]] json_t* read_document(std::string_view text);

}  // namespace tarvex::rest
