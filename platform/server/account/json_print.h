/// \file
/// Documents of JSON as commands print them. The functions throw std::bad_alloc when memory is out.
#pragma once

#include "link/frame.h"

#include <jansson.h>

#include <string_view>

namespace tarvex::server {

/// Owns what jansson has made.
[[nodiscard]] json_document json_made(json_t* made);

void json_set_null(json_t* object, const char* key);
void json_set_true(json_t* object, const char* key, bool value);
void json_set_document(json_t* object, const char* key, json_document value);
void json_add_text(json_t* array, std::string_view text);
void json_add_document(json_t* array, json_document value);

/// Prints a document on standard output, for programs and people.
void json_print(const json_t* document);

}  // namespace tarvex::server
