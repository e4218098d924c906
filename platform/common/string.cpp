#include "tarvex_common.h"

#include <cstdio>

extern "C" {

char* tarvex_common_v_create_string(const char* format, va_list arguments) {
  char* text = nullptr;
  return vasprintf(&text, format, arguments) < 0 ? nullptr : text;
}

char* tarvex_common_create_string(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char* text = tarvex_common_v_create_string(format, arguments);
  va_end(arguments);
  return text;
}

}  // extern "C"
