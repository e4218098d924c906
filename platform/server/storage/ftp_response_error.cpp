#include "tarvex_common.hpp"
#include "tarvex_gridftp_server.h"

#include <cstring>
#include <memory>
#include <new>

namespace {

using tarvex::c_string;
using tarvex::releaser;
using object_ptr = std::unique_ptr<tarvex_object_t, releaser<tarvex_object_free>>;

/// Instance data of an FTP response error.
struct ftp_response {
  const tarvex_module_descriptor_t* module = nullptr;
  int code = 0;
  c_string class_word;
  c_string message;
};

c_string duplicate(const char* text) {
  return c_string(strdup(text == nullptr ? "" : text));
}

void response_free(void* data) {
  delete static_cast<ftp_response*>(data);
}

void response_copy(void* source, void** target) {
  if (target == nullptr) return;
  *target = nullptr;
  if (source == nullptr) return;
  const auto& from = *static_cast<const ftp_response*>(source);
  std::unique_ptr<ftp_response> copy(new (std::nothrow) ftp_response{
      from.module, from.code, duplicate(from.class_word.get()), duplicate(from.message.get())});
  if (copy != nullptr && copy->class_word != nullptr && copy->message != nullptr) *target = copy.release();
}

const ftp_response* response_of(const tarvex_object_t* error) {
  if (error == nullptr || tarvex_object_get_type(error) != &TARVEX_GFS_ERROR_FTP_RESPONSE_TYPE_DEFINITION) {
    return nullptr;
  }
  return static_cast<const ftp_response*>(tarvex_object_get_instance_data(error));
}

const ftp_response* first_response(const tarvex_object_t* error) {
  for (; error != nullptr; error = tarvex_error_get_cause(error)) {
    if (const ftp_response* response = response_of(error)) return response;
  }
  return nullptr;
}

char* response_print(tarvex_object_t* error) {
  const ftp_response* response = response_of(error);
  if (response == nullptr) return strdup("");
  const char* class_word = response->class_word.get();
  const char* message = response->message.get();
  const bool both = *class_word != '\0' && *message != '\0';
  return tarvex_common_create_string("%s%s%s", class_word, both ? "\n" : "", message);
}

int valid_code(int code) {
  return code >= 400 && code <= 599 ? code : 500;
}

}  // namespace

tarvex_extension_registry_t tarvex_i_gfs_dsi_registry = {};

const tarvex_object_type_t TARVEX_GFS_ERROR_FTP_RESPONSE_TYPE_DEFINITION = {
    .parent_type = &TARVEX_ERROR_TYPE_BASE_DEFINITION,
    .copy_func = response_copy,
    .destructor = response_free,
    .class_data = reinterpret_cast<void*>(response_print),
};

tarvex_object_t* tarvex_gfs_ftp_response_error_construct(const tarvex_module_descriptor_t* module,
                                                         tarvex_object_t* cause, int code, const char* class_word,
                                                         const char* format, ...) {
  object_ptr owned_cause(cause);
  std::unique_ptr<ftp_response> response(new (std::nothrow) ftp_response);
  if (response == nullptr) return nullptr;
  response->module = module;
  response->code = valid_code(code);
  response->class_word = duplicate(class_word);
  if (format == nullptr) {
    response->message = duplicate("");
  } else {
    va_list arguments;
    va_start(arguments, format);
    response->message.reset(tarvex_common_v_create_string(format, arguments));
    va_end(arguments);
  }
  if (response->class_word == nullptr || response->message == nullptr) return nullptr;

  object_ptr error(tarvex_object_construct(&TARVEX_GFS_ERROR_FTP_RESPONSE_TYPE_DEFINITION));
  if (error == nullptr) return nullptr;
  tarvex_object_set_instance_data(error.get(), response.release());  // the object's from here on
  tarvex_error_set_cause(error.get(), owned_cause.release());
  return error.release();
}

int tarvex_gfs_ftp_response_error_code(const tarvex_object_t* error) {
  const ftp_response* response = first_response(error);
  return response == nullptr ? 0 : response->code;
}

const char* tarvex_gfs_ftp_response_error_class(const tarvex_object_t* error) {
  const ftp_response* response = first_response(error);
  return response == nullptr ? nullptr : response->class_word.get();
}

tarvex_object_t* tarvex_i_gfs_error_system(tarvex_object_t* cause, int error_number, const char* format, ...) {
  object_ptr owned_cause(cause);
  va_list arguments;
  va_start(arguments, format);
  c_string what(tarvex_common_v_create_string(format, arguments));
  va_end(arguments);
  if (what == nullptr) return nullptr;
  char text[256] = "";
  const char* reason = strerror_r(error_number, text, sizeof text);
  return tarvex_error_construct_error(nullptr, owned_cause.release(), TARVEX_GFS_ERROR_GENERIC, "error.cpp", __func__,
                                      __LINE__, "%s: %s", what.get(), reason);
}
