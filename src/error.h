/// \file
/// One helper per kind of error, each giving the result to return.
#pragma once

#include "tarvex_box_common.h"

#include <initializer_list>
#include <string>

namespace tarvex::box {

/// Success as a value of the result type.
inline constexpr tarvex_result_t SUCCESS = TARVEX_SUCCESS;

/// In whose name a source file reports its generic errors: a function of the interface, and the file's own name.
struct error_source {
  constexpr error_source() = default;
  constexpr explicit error_source(const char* of, const char* path = __builtin_FILE()) : function(of), file(path) {
    for (const char* at = path; *at != '\0'; ++at) {
      if (*at == '/') file = at + 1;
    }
  }

  const char* function = nullptr;
  const char* file = nullptr;
};

/// Where a generic error arises. Made of a source by the call that takes it, so that the line is the caller's.
struct error_place {
  error_place(const error_source& by, int at = __builtin_LINE()) : source(by), line(at) {}

  error_source source;
  int line;
};

/// Generic error with a fixed sentence. \param cause  taken over; null: none
[[nodiscard]] tarvex_result_t error_generic(const error_place& place, const std::string& text,
                                            tarvex_object_t* cause = nullptr);

/// System error for the current errno in "malloc": how running out of memory is told, and what Box failed to send.
[[nodiscard]] tarvex_result_t error_memory() noexcept;

/// System error in the call of that name.
[[nodiscard]] tarvex_result_t error_system(int error_number, const char* call) noexcept;

/// FTP response error. \param message  null: none. \param cause  taken over; null: none.
[[nodiscard]] tarvex_result_t error_ftp(int code, const char* class_word, const char* message,
                                        tarvex_object_t* cause = nullptr);

/// FTP response error with a path: "GridFTP-Path: " and the path as it stands.
[[nodiscard]] tarvex_result_t error_path(int code, const char* class_word, const std::string& path);

/// 553 INVALID_PATH_NAME for a name that cannot go into JSON: it is no UTF-8.
[[nodiscard]] tarvex_result_t error_name();

/// A box error with these pairs, the caller's; null when memory is out.
[[nodiscard]] tarvex_object_t* error_info(std::initializer_list<tarvex_dsi_rest_key_value_t> pairs);

/// A box error with pairs out of an answer of Box, whose values may be empty; null when memory is out.
[[nodiscard]] tarvex_object_t* error_response_info(const tarvex_dsi_rest_key_array_t& info);

/// A pair for `error_info` and the REST client, which take writable strings and write to none.
tarvex_dsi_rest_key_value_t pair(const char* key, const char* value);

/// Stops the process, in release builds too, unless `holds`; for what only a fault of ours can break.
void require(bool holds, const char* condition, const char* function = __builtin_FUNCTION()) noexcept;

}  // namespace tarvex::box
