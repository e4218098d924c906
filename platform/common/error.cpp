#include "error.h"

#include "object.h"
#include "tarvex_common.hpp"

#include <cstdarg>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <utility>

namespace tarvex::common {
namespace {

/// Instance data of generic errors.
struct generic_error {
  int type;
  const char* source_file;  // borrowed, as the function
  const char* source_func;
  int source_line;
  char* message;  // owned
};

void release_generic_error(void* instance_data) {
  auto* data = static_cast<generic_error*>(instance_data);
  std::free(data->message);
  delete data;
}

using generic_error_ptr = owner<generic_error, release_generic_error>;

void copy_generic_error(void* source, void** copy) {
  generic_error_ptr data(new (std::nothrow) generic_error(*static_cast<const generic_error*>(source)));
  *copy = nullptr;
  if (!data) return;
  data->message = strdup(data->message);
  if (data->message != nullptr) *copy = data.release();
}

char* print_generic_error(tarvex_object_t* error) {
  const auto* data = static_cast<const generic_error*>(tarvex_object_get_instance_data(error));
  return strdup(data == nullptr ? "" : data->message);
}

const generic_error* generic_data(const tarvex_object_t* error) {
  if (!tarvex_object_type_match(error, &TARVEX_ERROR_TYPE_GENERIC_DEFINITION)) return nullptr;
  return static_cast<const generic_error*>(error->instance_data);
}

bool is_error(const tarvex_object_t* object) {
  return tarvex_object_type_match(object, &TARVEX_ERROR_TYPE_BASE_DEFINITION);
}

bool chain_contains(const tarvex_object_t* chain, const tarvex_object_t* error) {
  while (chain != nullptr && chain != error) chain = chain->cause;
  return chain != nullptr;
}

/// Nothing changes these: they are immortal objects.
char failed_message[] = "Operation failed.";
char out_of_memory_message[] = "Out of memory.";
constinit generic_error failed_data = {0, nullptr, nullptr, 0, failed_message};
constinit generic_error out_of_memory_data = {0, nullptr, nullptr, 0, out_of_memory_message};
constinit tarvex_object_t failed_object = {
    .type = &TARVEX_ERROR_TYPE_GENERIC_DEFINITION, .instance_data = &failed_data, .immortal = true};
constinit tarvex_object_t out_of_memory_object = {
    .type = &TARVEX_ERROR_TYPE_GENERIC_DEFINITION, .instance_data = &out_of_memory_data, .immortal = true};

}  // namespace

tarvex_object_t* failed_error() noexcept {
  return &failed_object;
}
tarvex_object_t* out_of_memory_error() noexcept {
  return &out_of_memory_object;
}

}  // namespace tarvex::common

using tarvex::c_string;
using tarvex::object_ptr;

extern "C" {

const tarvex_object_type_t TARVEX_ERROR_TYPE_BASE_DEFINITION = {.parent_type = &TARVEX_OBJECT_TYPE_BASE_DEFINITION,
                                                                .copy_func = nullptr,
                                                                .destructor = nullptr,
                                                                .class_data = nullptr};

const tarvex_object_type_t TARVEX_ERROR_TYPE_GENERIC_DEFINITION = {
    .parent_type = &TARVEX_ERROR_TYPE_BASE_DEFINITION,
    .copy_func = tarvex::common::copy_generic_error,
    .destructor = tarvex::common::release_generic_error,
    .class_data = reinterpret_cast<void*>(tarvex::common::print_generic_error)};

tarvex_object_t* tarvex_error_construct_error(const tarvex_module_descriptor_t* module, tarvex_object_t* cause,
                                              int type, const char* source_file, const char* source_func,
                                              int source_line, const char* format, ...) {
  object_ptr owned_cause(cause);
  va_list arguments;
  va_start(arguments, format);
  c_string message(format == nullptr ? strdup("") : tarvex_common_v_create_string(format, arguments));
  va_end(arguments);

  object_ptr error(tarvex_object_construct(&TARVEX_ERROR_TYPE_GENERIC_DEFINITION));
  if (!message || !error) return nullptr;
  error->instance_data =
      new (std::nothrow) tarvex::common::generic_error{type, source_file, source_func, source_line, message.get()};
  if (error->instance_data == nullptr) return nullptr;
  (void)message.release();  // the instance data has it now
  error->module = module;
  error->cause = owned_cause.release();
  return error.release();
}

int tarvex_error_get_type(const tarvex_object_t* error) {
  const auto* data = tarvex::common::generic_data(error);
  return data == nullptr ? 0 : data->type;
}

bool tarvex_error_get_source(const tarvex_object_t* error, const char** file, const char** func, int* line) {
  const auto* data = tarvex::common::generic_data(error);
  if (data == nullptr) return false;
  if (file != nullptr) *file = data->source_file;
  if (func != nullptr) *func = data->source_func;
  if (line != nullptr) *line = data->source_line;
  return true;
}

tarvex_object_t* tarvex_error_get_cause(const tarvex_object_t* error) {
  return error == nullptr ? nullptr : error->cause;
}

void tarvex_error_set_cause(tarvex_object_t* error, tarvex_object_t* cause) {
  object_ptr dropped(cause);
  if (!tarvex::common::is_error(error) || error->immortal) return;
  // A chain that leads back to the error would never end; such a cause is dropped.
  if (tarvex::common::chain_contains(cause, error)) return;
  (void)dropped.release();
  dropped.reset(std::exchange(error->cause, cause));
}

char* tarvex_error_print(tarvex_object_t* error) {
  if (!tarvex::common::is_error(error) || error->type->class_data == nullptr) return strdup("");
  return reinterpret_cast<tarvex_error_printable_func_t>(error->type->class_data)(error);
}

char* tarvex_error_print_chain(tarvex_object_t* error) try {
  std::string text;
  for (; error != nullptr; error = error->cause) {
    c_string own(tarvex_error_print(error));
    if (!own) return nullptr;
    if (*own == '\0') continue;
    if (!text.empty()) text += '\n';
    text += own.get();
  }
  return strdup(text.c_str());
} catch (const std::exception&) {
  return nullptr;
}

}  // extern "C"
