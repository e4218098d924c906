#include "never_destroyed.h"
#include "tarvex_common.h"

#include <cerrno>
#include <exception>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace tarvex::common {
namespace {

struct extension {
  const tarvex_module_descriptor_t* module;
  const void* data;
};

using extension_map = std::map<std::string, extension, std::less<>>;

/// Guards every registry; they are few and seldom asked.
constinit never_destroyed<std::mutex> registries_mutex;

extension_map* entries_of(tarvex_extension_registry_t* registry) {
  return static_cast<extension_map*>(registry->entries);
}

int add(tarvex_extension_registry_t* registry, std::string_view name, const extension& entry) {
  const std::lock_guard lock(registries_mutex.value);
  if (registry->entries == nullptr) registry->entries = new extension_map;
  return entries_of(registry)->try_emplace(std::string(name), entry).second ? 0 : EEXIST;
}

}  // namespace
}  // namespace tarvex::common

using tarvex::common::entries_of;
using tarvex::common::registries_mutex;

extern "C" {

int tarvex_extension_registry_add(tarvex_extension_registry_t* registry, const char* name,
                                  const tarvex_module_descriptor_t* module, const void* data) try {
  if (registry == nullptr || name == nullptr) return EINVAL;
  return tarvex::common::add(registry, name, {module, data});
} catch (const std::exception&) {
  return ENOMEM;
}

const void* tarvex_extension_registry_lookup(tarvex_extension_registry_t* registry, const char* name) {
  if (registry == nullptr || name == nullptr) return nullptr;
  const std::lock_guard lock(registries_mutex.value);
  const auto* entries = entries_of(registry);
  if (entries == nullptr) return nullptr;
  const auto found = entries->find(std::string_view(name));
  return found == entries->end() ? nullptr : found->second.data;
}

int tarvex_extension_registry_remove(tarvex_extension_registry_t* registry, const char* name) {
  if (registry == nullptr || name == nullptr) return ENOENT;
  const std::lock_guard lock(registries_mutex.value);
  auto* entries = entries_of(registry);
  if (entries == nullptr) return ENOENT;
  const auto found = entries->find(std::string_view(name));
  if (found == entries->end()) return ENOENT;
  entries->erase(found);
  if (entries->empty()) {
    delete entries;
    registry->entries = nullptr;
  }
  return 0;
}

}  // extern "C"
