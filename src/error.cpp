#include "error.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace tarvex::box {

tarvex_result_t error_generic(const error_place& place, const std::string& text, tarvex_object_t* cause) {
  return tarvex_error_put(tarvex_error_construct_error(nullptr, cause, TARVEX_GFS_ERROR_GENERIC, place.source.file,
                                                       place.source.function, place.line, "%s", text.c_str()));
}

tarvex_result_t error_memory() noexcept {
  return error_system(errno, "malloc");
}

tarvex_result_t error_system(int error_number, const char* call) noexcept {
  return tarvex_error_put(tarvex_i_gfs_error_system(nullptr, error_number, "System error%s%s", " in ", call));
}

tarvex_result_t error_ftp(int code, const char* class_word, const char* message, tarvex_object_t* cause) {
  const char* const format = message != nullptr ? "%s" : nullptr;
  return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(nullptr, cause, code, class_word, format, message));
}

tarvex_result_t error_path(int code, const char* class_word, const std::string& path) {
  return error_ftp(code, class_word, ("GridFTP-Path: " + path).c_str());
}

tarvex_result_t error_name() {
  return error_path(553, "INVALID_PATH_NAME", "<Invalid Name>");
}

tarvex_object_t* error_info(std::initializer_list<tarvex_dsi_rest_key_value_t> pairs) {
  const tarvex_dsi_rest_key_array_t info{.count = pairs.size(),
                                         .key_value = const_cast<tarvex_dsi_rest_key_value_t*>(pairs.begin())};
  return tarvex_box_error_construct(nullptr, nullptr, &info);
}

tarvex_dsi_rest_key_value_t pair(const char* key, const char* value) {
  return {.key = const_cast<char*>(key), .value = const_cast<char*>(value)};
}

void require(bool holds, const char* condition, const char* function) noexcept {
  if (holds) return;
  (void)std::fprintf(stderr, "%s: Assertion `%s' failed.\n", function, condition);
  std::abort();
}

}  // namespace tarvex::box
