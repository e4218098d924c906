#include "error.h"
#include "trace.h"

#include <cstdlib>
#include <cstring>

namespace {

using key_array = tarvex_dsi_rest_key_array_t;
using key_value = tarvex_dsi_rest_key_value_t;

bool tarvex_l_box_pair_copy(const key_value& from, key_value& to) {
  to = {};
  if (from.key != nullptr && (to.key = strdup(from.key)) == nullptr) return false;
  return from.value == nullptr || (to.value = strdup(from.value)) != nullptr;
}

void tarvex_l_box_pair_free(key_value& pair) {
  std::free(pair.key);
  std::free(pair.value);
  pair = {};
}

void tarvex_l_box_error_free(void* data) {
  auto* const info = static_cast<key_array*>(data);
  if (info == nullptr) return;
  for (size_t i = 0; i < info->count; ++i) tarvex_l_box_pair_free(info->key_value[i]);
  std::free(info->key_value);
  std::free(info);
}

void tarvex_l_box_error_copy(void* src, void** dst) {
  if (src == nullptr || dst == nullptr) return;
  const auto& from = *static_cast<const key_array*>(src);
  auto* const copy = static_cast<key_array*>(std::calloc(1, sizeof(key_array)));
  *dst = copy;
  if (copy == nullptr || from.count == 0) return;
  copy->key_value = static_cast<key_value*>(std::calloc(from.count, sizeof(key_value)));
  bool complete = copy->key_value != nullptr;
  for (size_t i = 0; complete && i < from.count; ++i) {
    complete = tarvex_l_box_pair_copy(from.key_value[i], copy->key_value[i]);
    if (complete) {
      copy->count = i + 1;
    } else {
      tarvex_l_box_pair_free(copy->key_value[i]);
    }
  }
  if (complete) return;
  tarvex_l_box_error_free(copy);
  *dst = nullptr;
}

bool tarvex_l_box_has_text(const char* text) {
  return text != nullptr && *text != '\0';
}

/// The two-character form of a character that a line in quotes cannot hold; null: it stands for itself.
const char* tarvex_l_box_escape(char character) {
  switch (character) {
    case '"':
      return "\\\"";
    case '\r':
      return "\\r";
    case '\n':
      return "\\n";
    case '\\':
      return "\\\\";
    default:
      return nullptr;
  }
}

/// Counts a separator before every pair but the first, printed or not, and pairs with an empty value, which are not
/// written: lists for which that makes a difference stop the process on purpose.
size_t tarvex_l_box_printed_size(const key_array& info) {
  size_t size = 0;
  for (size_t i = 0; i < info.count; ++i) {
    const key_value& pair = info.key_value[i];
    if (!tarvex_l_box_has_text(pair.key) || pair.value == nullptr) continue;
    size += (i == 0 ? 0 : 1) + std::strlen(pair.key) + std::strlen(": \"\"");
    for (const char* at = pair.value; *at != '\0'; ++at) size += tarvex_l_box_escape(*at) != nullptr ? 2 : 1;
  }
  return size;
}

std::string tarvex_l_box_printed(const key_array& info) {
  std::string text;
  for (size_t i = 0; i < info.count; ++i) {
    const key_value& pair = info.key_value[i];
    if (!tarvex_l_box_has_text(pair.key) || !tarvex_l_box_has_text(pair.value)) continue;
    if (!text.empty()) text += '\n';
    text.append(pair.key).append(": \"");
    for (const char* at = pair.value; *at != '\0'; ++at) {
      const char* const escape = tarvex_l_box_escape(*at);
      if (escape != nullptr) {
        text += escape;
      } else {
        text += *at;
      }
    }
    text += '"';
  }
  return text;
}

char* tarvex_l_box_error_printable(tarvex_object_t* error) {
  const tarvex_object_t* const box_error =
      tarvex_object_type_match(error, &TARVEX_BOX_ERROR_TYPE_DEFINITION) ? error : nullptr;
  tarvex::box::require(box_error != nullptr, "box_error != NULL");
  const auto* const info = static_cast<const key_array*>(tarvex_object_get_instance_data(box_error));
  try {
    const std::string msg = info != nullptr ? tarvex_l_box_printed(*info) : std::string();
    tarvex::box::require(msg.size() == (info != nullptr ? tarvex_l_box_printed_size(*info) : 0), "strlen(msg) == len");
    return strdup(msg.c_str());
  } catch (...) {
    return nullptr;
  }
}

/// Box may send empty values, which do not print.
char* tarvex_l_box_response_printable(tarvex_object_t* error) {
  const auto* const info = static_cast<const key_array*>(tarvex_object_get_instance_data(error));
  try {
    return strdup(info != nullptr ? tarvex_l_box_printed(*info).c_str() : "");
  } catch (...) {
    return nullptr;
  }
}

/// A box error with what Box answered: any list of pairs prints.
const tarvex_object_type_t RESPONSE_ERROR_TYPE = {
    .parent_type = &TARVEX_BOX_ERROR_TYPE_DEFINITION,
    .copy_func = tarvex_l_box_error_copy,
    .destructor = tarvex_l_box_error_free,
    .class_data = reinterpret_cast<void*>(tarvex_l_box_response_printable),
};

tarvex_object_t* tarvex_l_box_construct(const tarvex_object_type_t& type, const key_array* info) {
  const tarvex::box::trace_scope scope("tarvex_box_error_construct");
  tarvex::object_ptr object(tarvex_object_construct(&type));
  if (tarvex_box_error_initialize(object.get(), nullptr, nullptr, info) == nullptr) object.reset();
  scope.leave();
  return object.release();
}

key_value* tarvex_l_box_pair_find(key_array& info, const char* key) {
  for (size_t i = 0; i < info.count; ++i) {
    key_value& pair = info.key_value[i];
    if (pair.key != nullptr && key != nullptr && std::strcmp(pair.key, key) == 0) return &pair;
  }
  return nullptr;
}

key_array* tarvex_l_box_error_info(tarvex_object_t* error) {
  if (!tarvex_object_type_match(error, &TARVEX_BOX_ERROR_TYPE_DEFINITION)) return nullptr;
  return static_cast<key_array*>(tarvex_object_get_instance_data(error));
}

/// Makes room for `added` more pairs, zeroed.
bool tarvex_l_box_info_grow(key_array& info, size_t added) {
  if (added == 0) return true;
  auto* const grown = static_cast<key_value*>(reallocarray(info.key_value, info.count + added, sizeof(key_value)));
  if (grown == nullptr) return false;
  std::memset(grown + info.count, 0, added * sizeof(key_value));
  info.key_value = grown;
  return true;
}

/// Gives a stored pair a fresh copy of the value that it has.
void tarvex_l_box_value_renew(key_value& pair) {
  char* const value = pair.value != nullptr ? strdup(pair.value) : nullptr;
  if (value == nullptr) return;
  std::free(pair.value);
  pair.value = value;
}

}  // namespace

const tarvex_object_type_t TARVEX_BOX_ERROR_TYPE_DEFINITION = {
    .parent_type = &TARVEX_ERROR_TYPE_BASE_DEFINITION,
    .copy_func = tarvex_l_box_error_copy,
    .destructor = tarvex_l_box_error_free,
    .class_data = reinterpret_cast<void*>(tarvex_l_box_error_printable),
};

extern "C" {

tarvex_object_t* tarvex_box_error_construct(const tarvex_module_descriptor_t*, tarvex_object_t*,
                                            const tarvex_dsi_rest_key_array_t* info) {
  return tarvex_l_box_construct(TARVEX_BOX_ERROR_TYPE_DEFINITION, info);
}

tarvex_object_t* tarvex_box_error_initialize(tarvex_object_t* object, const tarvex_module_descriptor_t*,
                                             tarvex_object_t*, const tarvex_dsi_rest_key_array_t* info) {
  if (!tarvex_object_type_match(object, &TARVEX_BOX_ERROR_TYPE_DEFINITION)) return nullptr;
  key_array source = info != nullptr ? *info : key_array{};
  void* copy = nullptr;
  tarvex_l_box_error_copy(&source, &copy);
  if (copy == nullptr) return nullptr;
  tarvex_object_set_instance_data(object, copy);
  return object;
}

const char* tarvex_box_error_get_info(tarvex_object_t* error, const char* key) {
  while (error != nullptr && !tarvex_object_type_match(error, &TARVEX_BOX_ERROR_TYPE_DEFINITION)) {
    error = tarvex_error_get_cause(error);
  }
  key_array* const info = tarvex_l_box_error_info(error);
  const key_value* const pair = info != nullptr ? tarvex_l_box_pair_find(*info, key) : nullptr;
  return pair != nullptr ? pair->value : nullptr;
}

void tarvex_box_error_add_info(tarvex_object_t* error, const tarvex_dsi_rest_key_array_t* added) {
  key_array* const info = tarvex_l_box_error_info(error);
  if (info == nullptr || added == nullptr || added->count == 0) return;
  const size_t before = info->count;
  size_t fresh = 0;
  for (size_t i = 0; i < added->count; ++i) {
    if (tarvex_l_box_pair_find(*info, added->key_value[i].key) == nullptr) ++fresh;
  }
  if (!tarvex_l_box_info_grow(*info, fresh)) return;
  for (size_t i = 0; i < added->count; ++i) {
    if (key_value* const stored = tarvex_l_box_pair_find(*info, added->key_value[i].key); stored != nullptr) {
      tarvex_l_box_value_renew(*stored);  // the stored value stays on purpose
      continue;
    }
    const bool copied = tarvex_l_box_pair_copy(added->key_value[i], info->key_value[info->count]);
    ++info->count;
    // The test looks at the slot after the new one on purpose: an empty slot there takes the whole call back, so that
    // two new keys in one call are never stored. Beyond the last slot there is nothing to look at.
    const bool last = info->count == before + fresh;
    if (copied && (last || info->key_value[info->count].value != nullptr)) continue;
    while (info->count > before) tarvex_l_box_pair_free(info->key_value[--info->count]);
    return;
  }
}

}  // extern "C"

namespace tarvex::box {

tarvex_object_t* error_response_info(const tarvex_dsi_rest_key_array_t& info) {
  return tarvex_l_box_construct(RESPONSE_ERROR_TYPE, &info);
}

}  // namespace tarvex::box
