#include "module.h"

#include "tarvex_common.hpp"
#include "tarvex_dsi_rest.h"

#include <curl/curl.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

namespace tarvex::rest {
namespace {

std::atomic<bool> active{false};
// Written before `active` is set.
std::string authorities_file;
std::string proxy_address;

std::string environment_text(const char* variable) {
  const char* const value = std::getenv(variable);
  return value == nullptr ? "" : value;
}

int activate() noexcept {
  if (const int failed = tarvex_module_activate(&tarvex_i_common_module); failed != 0) return failed;
  const auto initialise = [] {
    authorities_file = environment_text("TARVEX_DSI_REST_CA_FILE");
    proxy_address = environment_text("TARVEX_DSI_REST_PROXY");
    return curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK ? 0 : EIO;
  };
  int failed = ENOMEM;
  try {
    failed = initialise();
  } catch (const std::bad_alloc&) {
    // ENOMEM stands already.
  }
  if (failed != 0) (void)tarvex_module_deactivate(&tarvex_i_common_module);  // the first failure is what counts
  active = failed == 0;
  return failed;
}

/// libcurl stays initialised: threads may still hold clients, whose connections are closed as the threads end.
int deactivate() noexcept {
  active = false;
  return tarvex_module_deactivate(&tarvex_i_common_module);
}

}  // namespace

bool module_active() noexcept {
  return active;
}

const std::string& proxy() noexcept {
  return proxy_address;
}

const std::string& certificate_authorities_file() noexcept {
  return authorities_file;
}

}  // namespace tarvex::rest

const tarvex_module_descriptor_t tarvex_i_dsi_rest_module = {
    .module_name = "tarvex_dsi_rest",
    .activation_func = tarvex::rest::activate,
    .deactivation_func = tarvex::rest::deactivate,
    .atexit_func = nullptr,
    .get_pointer_func = nullptr,
    .version = &tarvex::PROJECT_VERSION,
    .friendly_error_func = nullptr,
};
