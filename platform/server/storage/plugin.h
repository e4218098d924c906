#pragma once

#include "config/configuration.h"
#include "tarvex_gridftp_server.h"

#include <optional>
#include <string>
#include <vector>

namespace tarvex::server {

/// The storage plug-in: its library, its module and, once activated, its interface.
struct storage_plugin {
  void* library = nullptr;                                ///< dlopen handle; stays open for the process's life
  const tarvex_module_descriptor_t* module = nullptr;     ///< `tarvex_gridftp_server_<dsi>_module`
  const tarvex_gfs_storage_iface_t* interface = nullptr;  ///< null before plugin_activate
};

/// Loads the plug-in and applies [storage.settings] (where they name it not, this server's own choice: unfinished
/// uploads are aborted when a session ends) and [box] (the bases go into the environment, for the plug-in's
/// activation to read). Runs none of its code; before any session.
/// \return an empty string, or one line that says what is wrong: the library cannot be loaded, lacks its module, is of
/// another interface version, or has no int setting `tarvex_i_<dsi>_<key>` (an exported object of int's size).
std::string plugin_load(const configuration& config, storage_plugin& out);

/// What plugin_load would find wrong, every mistake with its line in `file`, from which `config` was read.
std::vector<configuration_mistake> plugin_check(const configuration& config, const std::string& file);

/// Value of the plug-in's exported int setting `tarvex_i_<dsi>_<key>`; nothing when it has none.
std::optional<int> plugin_setting(const storage_plugin& plugin, const std::string& dsi, const std::string& key);

/// Activates the module and looks its interface up in the registry; in a session process, after login.
/// \return an empty string, or what is wrong (no such interface, or one without init and stat).
std::string plugin_activate(storage_plugin& plugin, const std::string& dsi);

/// Takes the activation back.
void plugin_deactivate(storage_plugin& plugin);

}  // namespace tarvex::server
