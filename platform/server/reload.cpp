#include "reload.h"

namespace tarvex::server {

namespace {

using c = configuration;

template <auto field>
bool keep_field(const c& in_force, c& fresh) {
  if (in_force.*field == fresh.*field) return false;
  fresh.*field = in_force.*field;
  return true;
}

/// What was bound, loaded or shared before the first session.
struct fixed_row {
  const char* key;
  bool (*keep)(const c& in_force, c& fresh);
};
constexpr fixed_row FIXED[] = {
    {"listen in [server]", keep_field<&c::listen>},
    {"implicit_listen in [tls]", keep_field<&c::implicit_listen>},
    {"user in [security]", keep_field<&c::user>},
    {"dsi in [storage]", keep_field<&c::storage_dsi>},
    {"library in [storage]", keep_field<&c::storage_library>},
    {"[storage.settings]", keep_field<&c::storage_settings>},
    {"api_base in [box]", keep_field<&c::box_api_base>},
    {"upload_base in [box]", keep_field<&c::box_upload_base>},
    {"ca_file in [box]", keep_field<&c::box_ca_file>},
    {"proxy in [box]", keep_field<&c::box_proxy>},
    {"user in [broker]", keep_field<&c::broker_user>},
    {"spool_memory_bytes in [limits]", keep_field<&c::spool_memory_bytes>},
    {"spool_disk_bytes in [limits]", keep_field<&c::spool_disk_bytes>},
};

}  // namespace

std::vector<std::string> keep_until_restart(const configuration& in_force, configuration& fresh) {
  std::vector<std::string> changed;
  for (const fixed_row& row : FIXED) {
    if (row.keep(in_force, fresh)) changed.emplace_back(row.key);
  }
  return changed;
}

}  // namespace tarvex::server
