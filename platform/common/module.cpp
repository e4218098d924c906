#include "never_destroyed.h"
#include "tarvex_common.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <vector>

namespace tarvex::common {
namespace {

struct module_entry {
  const tarvex_module_descriptor_t* module;
  int activations = 0;
  bool in_exit_handlers = false;
};

/// The modules that were ever activated, in the order in which they last became active.
struct module_table {
  std::recursive_mutex mutex;  // held during activation functions, which may activate further modules
  std::vector<module_entry> entries;

  std::vector<module_entry>::iterator find(const tarvex_module_descriptor_t* module) {
    return std::find_if(entries.begin(), entries.end(), [&](const auto& entry) { return entry.module == module; });
  }
};

constinit never_destroyed<module_table> modules;

/// Takes the newest active module that has an exit function out of the table; null when there is none.
const tarvex_module_descriptor_t* take_newest_with_exit_function() {
  const std::lock_guard lock(modules.value.mutex);
  auto& entries = modules.value.entries;
  const auto newest = std::find_if(entries.rbegin(), entries.rend(), [](const auto& entry) {
    return entry.activations > 0 && entry.module->atexit_func != nullptr;
  });
  if (newest == entries.rend()) return nullptr;
  newest->activations = 0;
  return newest->module;
}

void run_exit_functions() {
  while (const auto* module = take_newest_with_exit_function()) module->atexit_func();
}

/// An exit handler of its own for each module, so that its function runs before the destructors of what its library
/// made earlier. The first handler that runs serves all modules.
bool enter_in_exit_handlers(module_entry& entry) {
  if (entry.module->atexit_func == nullptr || entry.in_exit_handlers) return true;
  entry.in_exit_handlers = std::atexit(run_exit_functions) == 0;
  return entry.in_exit_handlers;
}

int activate_first(const tarvex_module_descriptor_t* module) {
  auto& table = modules.value;
  // Counted before its function runs, so that a module that comes back to itself on the way is not activated twice.
  if (const auto known = table.find(module); known == table.entries.end()) {
    table.entries.push_back({.module = module, .activations = 1});
  } else {
    known->activations = 1;
  }
  const int outcome = module->activation_func == nullptr ? 0 : module->activation_func();
  auto entry = table.find(module);  // again: the table may have grown meanwhile
  if (outcome != 0) {
    entry->activations = 0;
    return outcome;
  }
  std::rotate(entry, entry + 1, table.entries.end());
  return 0;
}

int activate(const tarvex_module_descriptor_t* module) {
  const std::lock_guard lock(modules.value.mutex);
  const auto entry = modules.value.find(module);
  if (entry != modules.value.entries.end() && entry->activations > 0) {
    ++entry->activations;
    return 0;
  }
  if (const int outcome = activate_first(module); outcome != 0) return outcome;
  (void)enter_in_exit_handlers(modules.value.entries.back());
  return 0;
}

}  // namespace
}  // namespace tarvex::common

using tarvex::common::modules;

extern "C" {

int tarvex_module_activate(const tarvex_module_descriptor_t* module) try {
  return module == nullptr ? EINVAL : tarvex::common::activate(module);
} catch (const std::exception&) {
  return ENOMEM;
}

int tarvex_module_deactivate(const tarvex_module_descriptor_t* module) {
  const std::lock_guard lock(modules.value.mutex);
  const auto entry = modules.value.find(module);
  if (entry == modules.value.entries.end() || entry->activations == 0) return EINVAL;
  if (--entry->activations > 0 || module->deactivation_func == nullptr) return 0;
  return module->deactivation_func();
}

}  // extern "C"
