#include "storage/plugin.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace tarvex::server {

namespace {

constexpr int INTERFACE_MAJOR = 0;  ///< of the storage interface that this server speaks

struct setting_environment {
  const char* variable;
  std::string configuration::*value;
};
constexpr setting_environment ENVIRONMENT[] = {
    {"TARVEX_BOX_API_BASE", &configuration::box_api_base},
    {"TARVEX_BOX_UPLOAD_BASE", &configuration::box_upload_base},
    {"TARVEX_DSI_REST_CA_FILE", &configuration::box_ca_file},
    {"TARVEX_DSI_REST_PROXY", &configuration::box_proxy},
};

/// Settings for which this server has a better value than the plug-in's own; the configuration's count before them.
struct preferred_setting {
  const char* key;
  int value;
};
constexpr preferred_setting PREFERRED[] = {
    {"abort_uploads", 1},  // a session's end is known here to be for good
};

std::string load_error() {
  const char* const text = dlerror();
  return text == nullptr ? "unknown error" : text;
}

struct memory_query {
  std::uintptr_t address;
  bool writable;
};

/// dl_iterate_phdr's callback: whether the address lies in a segment of this object that is mapped for writing.
int find_writable(dl_phdr_info* object, std::size_t, void* data) {
  auto& query = *static_cast<memory_query*>(data);
  for (int i = 0; i < object->dlpi_phnum; ++i) {
    const ElfW(Phdr)& segment = object->dlpi_phdr[i];
    const std::uintptr_t start = object->dlpi_addr + segment.p_vaddr;
    const bool holds = query.address >= start && query.address - start < segment.p_memsz;
    if (segment.p_type == PT_GNU_RELRO && holds) {
      query.writable = false;
      return 1;
    }
    if (segment.p_type == PT_LOAD && holds && (segment.p_flags & PF_W) != 0) query.writable = true;
  }
  return 0;
}

bool is_writable(const void* address) {
  memory_query query = {reinterpret_cast<std::uintptr_t>(address), false};
  dl_iterate_phdr(find_writable, &query);
  return query.writable;
}

std::string setting_name(const std::string& dsi, const std::string& key) {
  return "tarvex_i_" + dsi + "_" + key;
}

std::string unknown_setting(const std::string& dsi, const std::string& key) {
  return "unknown setting \"" + key + "\" in [storage.settings]: the storage library exports no int variable " +
         setting_name(dsi, key);
}

/// The library's own exported int of that name; null for functions, objects of another size, and symbols of the
/// libraries that it depends on.
int* find_int(void* library, const std::string& name) {
  void* const address = library == nullptr ? nullptr : dlsym(library, name.c_str());
  if (address == nullptr) return nullptr;
  Dl_info place = {};
  void* found = nullptr;
  link_map* map = nullptr;
  if (dladdr1(address, &place, &found, RTLD_DL_SYMENT) == 0 || found == nullptr ||
      dlinfo(library, RTLD_DI_LINKMAP, &map) != 0) {
    return nullptr;
  }
  const auto* const symbol = static_cast<const ElfW(Sym)*>(found);
  const bool own = reinterpret_cast<std::uintptr_t>(place.dli_fbase) == map->l_addr;
  const bool exact =
      place.dli_saddr == address && symbol->st_size == sizeof(int) && (symbol->st_info & 0xf) == STT_OBJECT;
  return own && exact ? static_cast<int*>(address) : nullptr;
}

/// The same of variables only: a constant is no setting.
int* find_setting(void* library, const std::string& name) {
  int* const found = find_int(library, name);
  return found != nullptr && is_writable(found) ? found : nullptr;
}

/// Why a setting cannot have the value; empty: it can. The library's constants NAME_min and NAME_max, where it has
/// them, are the smallest and the largest one.
std::string setting_error(void* library, const std::string& dsi, const std::string& key, int value) {
  const std::string name = setting_name(dsi, key);
  if (find_setting(library, name) == nullptr) return unknown_setting(dsi, key);
  const int* const least = find_int(library, name + "_min");
  const int* const most = find_int(library, name + "_max");
  if (least == nullptr || most == nullptr || (*least <= value && value <= *most)) return {};
  return key + " in [storage.settings]: expected a number from " + std::to_string(*least) + " to " +
         std::to_string(*most) + ", found " + std::to_string(value);
}

/// Opens the library and finds its module; the library stays open.
std::string open_library(const configuration& config, storage_plugin& out) {
  const std::string where = "storage library \"" + config.storage_library + "\"";
  out.library = dlopen(config.storage_library.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (out.library == nullptr) return where + " cannot be loaded: " + load_error();
  const std::string symbol = "tarvex_gridftp_server_" + config.storage_dsi + "_module";
  out.module = static_cast<const tarvex_module_descriptor_t*>(dlsym(out.library, symbol.c_str()));
  if (out.module == nullptr) return where + " has no module " + symbol + "; is dsi in [storage] its name?";
  if (out.module->version == nullptr || out.module->version->major != INTERFACE_MAJOR) {
    return where + " was made for another version of the storage interface than " + std::to_string(INTERFACE_MAJOR);
  }
  return {};
}

}  // namespace

std::string plugin_load(const configuration& config, storage_plugin& out) {
  const std::string error = open_library(config, out);
  if (!error.empty()) return error;
  for (const preferred_setting& row : PREFERRED) {
    if (int* const setting = find_setting(out.library, setting_name(config.storage_dsi, row.key))) *setting = row.value;
  }
  for (const auto& [key, value] : config.storage_settings) {
    if (std::string wrong = setting_error(out.library, config.storage_dsi, key, value); !wrong.empty()) return wrong;
    *find_setting(out.library, setting_name(config.storage_dsi, key)) = value;
  }
  for (const setting_environment& row : ENVIRONMENT) {
    const std::string& value = config.*row.value;
    if (!value.empty() && setenv(row.variable, value.c_str(), 1) != 0) {
      return std::string(row.variable) + " cannot be set: " + std::strerror(errno);
    }
  }
  return {};
}

std::vector<configuration_mistake> plugin_check(const configuration& config, const std::string& file) {
  storage_plugin opened;
  const std::string error = open_library(config, opened);
  if (!error.empty()) return {{file, configuration_line(config, "storage.library"), error}};
  std::vector<configuration_mistake> mistakes;
  for (const auto& [key, value] : config.storage_settings) {
    std::string wrong = setting_error(opened.library, config.storage_dsi, key, value);
    if (!wrong.empty()) mistakes.push_back({file, configuration_line(config, "storage.settings." + key), wrong});
  }
  return mistakes;
}

std::optional<int> plugin_setting(const storage_plugin& plugin, const std::string& dsi, const std::string& key) {
  const int* const setting = find_setting(plugin.library, setting_name(dsi, key));
  return setting == nullptr ? std::nullopt : std::optional<int>(*setting);
}

std::string plugin_activate(storage_plugin& plugin, const std::string& dsi) {
  const int failure = tarvex_module_activate(plugin.module);
  if (failure != 0) return "the storage module \"" + dsi + "\" cannot be activated (" + std::to_string(failure) + ")";
  const auto* const found = static_cast<const tarvex_gfs_storage_iface_t*>(
      tarvex_extension_registry_lookup(&tarvex_i_gfs_dsi_registry, dsi.c_str()));
  if (found == nullptr || found->init_func == nullptr || found->stat_func == nullptr) {
    (void)tarvex_module_deactivate(plugin.module);  // the error below is what matters
    return found == nullptr ? "the storage module registered no storage interface \"" + dsi + "\""
                            : "the storage interface \"" + dsi + "\" lacks its start or its stat function";
  }
  plugin.interface = found;
  return {};
}

void plugin_deactivate(storage_plugin& plugin) {
  if (plugin.interface == nullptr) return;
  plugin.interface = nullptr;
  (void)tarvex_module_deactivate(plugin.module);  // nothing is left that could be done about a failure
}

}  // namespace tarvex::server
