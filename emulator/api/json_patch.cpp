#include "api/json_patch.h"

#include <optional>
#include <string_view>

namespace tarvex::emulator {
namespace {

/// The member that a pointer names; nothing when it does not name one of the object itself.
std::optional<std::string> key_of(const json_t* operation, const char* member) {
  const auto pointer = json_text_at(operation, member);
  if (!pointer || !pointer->starts_with('/')) return std::nullopt;
  std::string key;
  for (std::size_t i = 1; i < pointer->size(); ++i) {
    char c = (*pointer)[i];
    if (c == '/') return std::nullopt;
    if (c == '~' && i + 1 < pointer->size()) c = (*pointer)[++i] == '1' ? '/' : '~';
    key += c;
  }
  return key;
}

struct step {
  json_t* object;
  const json_t* operation;
  std::string key;

  [[nodiscard]] json_t* present() const { return json_object_get(object, key.c_str()); }
};

std::string add(const step& at) {
  json_t* value = json_object_get(at.operation, "value");
  if (value == nullptr) return "value is missing";
  json_object_set(at.object, at.key.c_str(), value);
  return {};
}

std::string replace(const step& at) {
  return at.present() == nullptr ? "no value at the path" : add(at);
}

std::string remove(const step& at) {
  return json_object_del(at.object, at.key.c_str()) == 0 ? "" : "no value at the path";
}

std::string test(const step& at) {
  const json_t* present = at.present();
  const bool same = present != nullptr && json_equal(present, json_object_get(at.operation, "value")) == 1;
  return same ? "" : "value differs from expectations";
}

std::string copy(const step& at) {
  const auto from = key_of(at.operation, "from");
  json_t* value = from ? json_object_get(at.object, from->c_str()) : nullptr;
  if (value == nullptr) return "no value at from";
  json_object_set(at.object, at.key.c_str(), value);
  return {};
}

std::string move(const step& at) {
  const json_ptr value(json_incref(json_object_get(at.object, key_of(at.operation, "from").value_or("").c_str())));
  if (!value) return "no value at from";
  json_object_del(at.object, key_of(at.operation, "from")->c_str());
  json_object_set(at.object, at.key.c_str(), value.get());
  return {};
}

struct row {
  std::string_view name;
  std::string (*apply)(const step& at);
};

constexpr row OPERATIONS[] = {{"add", add},   {"replace", replace}, {"remove", remove},
                              {"test", test}, {"move", move},       {"copy", copy}};

std::string apply_one(json_t* object, const json_t* operation) {
  auto key = key_of(operation, "path");
  if (!key) return "not a path to a member";
  if (key->starts_with('$')) return "members that begin with $ cannot be changed";
  const auto name = json_text_at(operation, "op");
  for (const row& candidate : OPERATIONS) {
    if (candidate.name == name) return candidate.apply({object, operation, std::move(*key)});
  }
  return "unknown operation";
}

}  // namespace

bool json_patch_is_one(const json_t* patch) {
  if (!json_is_array(patch)) return false;
  for (std::size_t i = 0; i < json_array_size(patch); ++i) {
    const json_t* operation = json_array_get(patch, i);
    if (!json_text_at(operation, "op") || !json_text_at(operation, "path")) return false;
  }
  return true;
}

std::string json_patch_apply(json_t* target, const json_t* patch) {
  const json_ptr trial(json_copy(target));
  for (std::size_t i = 0; i < json_array_size(patch); ++i) {
    if (std::string refusal = apply_one(trial.get(), json_array_get(patch, i)); !refusal.empty()) return refusal;
  }
  json_object_clear(target);
  json_object_update(target, trial.get());
  return {};
}

}  // namespace tarvex::emulator
