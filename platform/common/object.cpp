#include "object.h"

#include "tarvex_common.hpp"

#include <new>
#include <utility>

namespace tarvex::common {
namespace {

/// Copies everything but the cause.
object_ptr copy_without_cause(const tarvex_object_t& source) {
  object_ptr copy(tarvex_object_construct(source.type));
  if (!copy) return nullptr;
  copy->module = source.module;
  if (source.instance_data != nullptr && source.type->copy_func != nullptr) {
    source.type->copy_func(source.instance_data, &copy->instance_data);
    if (copy->instance_data == nullptr) return nullptr;
  }
  return copy;
}

bool drops_last_reference(tarvex_object_t* object) {
  return !object->immortal && object->references.fetch_sub(1, std::memory_order_acq_rel) == 1;
}

}  // namespace
}  // namespace tarvex::common

using tarvex::object_ptr;

extern "C" {

const tarvex_object_type_t TARVEX_OBJECT_TYPE_BASE_DEFINITION = {
    .parent_type = nullptr, .copy_func = nullptr, .destructor = nullptr, .class_data = nullptr};

tarvex_object_t* tarvex_object_construct(const tarvex_object_type_t* type) {
  if (type == nullptr) return nullptr;
  return new (std::nothrow) tarvex_object_t{.type = type};
}

tarvex_object_t* tarvex_object_copy(const tarvex_object_t* object) {
  if (object == nullptr) return nullptr;
  object_ptr first = tarvex::common::copy_without_cause(*object);
  tarvex_object_t* last = first.get();
  // A loop, since a chain may be longer than the stack is deep.
  while (last != nullptr && object->cause != nullptr) {
    object = object->cause;
    last = last->cause = tarvex::common::copy_without_cause(*object).release();
  }
  return last == nullptr ? nullptr : first.release();
}

void tarvex_object_reference(tarvex_object_t* object) {
  if (object != nullptr && !object->immortal) object->references.fetch_add(1, std::memory_order_relaxed);
}

void tarvex_object_free(tarvex_object_t* object) {
  while (object != nullptr && tarvex::common::drops_last_reference(object)) {
    if (object->type->destructor != nullptr && object->instance_data != nullptr) {
      object->type->destructor(object->instance_data);
    }
    delete std::exchange(object, object->cause);
  }
}

const tarvex_object_type_t* tarvex_object_get_type(const tarvex_object_t* object) {
  return object == nullptr ? nullptr : object->type;
}

bool tarvex_object_type_match(const tarvex_object_t* object, const tarvex_object_type_t* type) {
  const tarvex_object_type_t* candidate = tarvex_object_get_type(object);
  while (candidate != nullptr && candidate != type) candidate = candidate->parent_type;
  return candidate != nullptr;
}

void* tarvex_object_get_instance_data(const tarvex_object_t* object) {
  return object == nullptr ? nullptr : object->instance_data;
}

void tarvex_object_set_instance_data(tarvex_object_t* object, void* data) {
  if (object != nullptr && !object->immortal) object->instance_data = data;
}

}  // extern "C"
