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
    // The template is flat: a pointer into a value cannot name anything.
    if (c == '/') return std::nullopt;
    if (c == '~' && i + 1 < pointer->size()) c = (*pointer)[++i] == '1' ? '/' : '~';
    key += c;
  }
  return key;
}

/// One operation, with the members that its kind asks for: `value` (borrowed) or `from`.
struct step {
  json_t* object;
  std::string key;
  json_t* value = nullptr;
  std::string from = {};

  [[nodiscard]] json_t* present() const { return json_object_get(object, key.c_str()); }
  [[nodiscard]] json_t* source() const { return json_object_get(object, from.c_str()); }
  void put(json_t* what) const { json_object_set(object, key.c_str(), what); }
};

std::string add(const step& at) {
  at.put(at.value);
  return {};
}

std::string replace(const step& at) {
  return at.present() == nullptr ? "no value at the path" : add(at);
}

std::string remove(const step& at) {
  return json_object_del(at.object, at.key.c_str()) == 0 ? "" : "no value at the path";
}

std::string test(const step& at) {
  return json_equal(at.present(), at.value) == 1 ? "" : "value differs from expectations";
}

std::string copy(const step& at) {
  if (at.source() == nullptr) return "no value at from";
  at.put(at.source());
  return {};
}

std::string move(const step& at) {
  // A reference of our own: the object lets go of its one before the value is put back.
  const json_ptr value(json_incref(at.source()));
  if (!value) return "no value at from";
  json_object_del(at.object, at.from.c_str());
  at.put(value.get());
  return {};
}

enum class needs { NOTHING, VALUE, FROM };

struct patch_row {
  std::string_view name;
  needs member;
  std::string (*apply)(const step& at);
};

constexpr patch_row OPERATIONS[] = {{"add", needs::VALUE, add},         {"replace", needs::VALUE, replace},
                                    {"remove", needs::NOTHING, remove}, {"test", needs::VALUE, test},
                                    {"move", needs::FROM, move},        {"copy", needs::FROM, copy}};

std::string apply_row(const patch_row& operation, step at, const json_t* text) {
  at.value = json_object_get(text, "value");
  if (operation.member == needs::VALUE && at.value == nullptr) return "value is missing";
  const auto from = key_of(text, "from");
  if (operation.member == needs::FROM && !from) return "from is missing";
  at.from = from.value_or("");
  return operation.apply(at);
}

std::string apply_one(json_t* object, const json_t* operation) {
  auto key = key_of(operation, "path");
  if (!key) return "not a path to a member";
  if (key->starts_with('$')) return "members that begin with $ cannot be changed";
  const auto name = json_text_at(operation, "op");
  for (const patch_row& candidate : OPERATIONS) {
    if (candidate.name == name) return apply_row(candidate, {object, std::move(*key)}, operation);
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
  // On a copy, as a patch is applied whole or not at all.
  const json_ptr trial(json_copy(target));
  for (std::size_t i = 0; i < json_array_size(patch); ++i) {
    if (std::string refusal = apply_one(trial.get(), json_array_get(patch, i)); !refusal.empty()) return refusal;
  }
  json_object_clear(target);
  json_object_update(target, trial.get());
  return {};
}

}  // namespace tarvex::emulator
