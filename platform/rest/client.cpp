#include "client.h"

#include "tarvex_dsi_rest.h"

#include "error.h"

#include <atomic>
#include <cerrno>

namespace tarvex::rest {
namespace {

constexpr long kept_connections = 8;

std::atomic<bool> active{false};
std::string authorities_file;  // written before `active` is set

thread_local client thread_client;

int activate() noexcept {
  if (const int failed = tarvex_module_activate(&tarvex_i_common_module); failed != 0) return failed;
  const auto initialise = [] {
    const char* const file = std::getenv("TARVEX_DSI_REST_CA_FILE");
    authorities_file = file == nullptr ? "" : file;
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

constexpr tarvex_version_t version = {.major = 0, .minor = 26, .timestamp = 0, .branch_id = 0};

tarvex_result_t make_client(client& made) {
  multi_ptr multi(curl_multi_init());
  easy_ptr easy(curl_easy_init());
  if (!multi || !easy) return out_of_memory();
  if (curl_multi_setopt(multi.get(), CURLMOPT_MAXCONNECTS, kept_connections) != CURLM_OK) return out_of_memory();
  made.multi = std::move(multi);
  made.easy = std::move(easy);
  return TARVEX_SUCCESS;
}

}  // namespace

const std::string& certificate_authorities_file() noexcept {
  return authorities_file;
}

tarvex_result_t client_lease::acquire() {
  if (!active) return fail(attempt::useless, "The REST client's module is not active.");
  if (thread_client.busy) return fail(attempt::useless, "A request cannot be made inside another request's callback.");
  if (!thread_client.easy) {
    if (const tarvex_result_t result = make_client(thread_client); result != TARVEX_SUCCESS) return result;
  }
  client_ = &thread_client;
  client_->busy = true;
  return TARVEX_SUCCESS;
}

client_lease::~client_lease() {
  if (client_ == nullptr) return;
  (void)curl_multi_remove_handle(client_->multi.get(), client_->easy.get());  // fine when it was never added
  curl_easy_reset(client_->easy.get());                                       // forgets tokens and borrowed pointers
  client_->busy = false;
}

}  // namespace tarvex::rest

const tarvex_module_descriptor_t tarvex_i_dsi_rest_module = {
    .module_name = "tarvex_dsi_rest",
    .activation_func = tarvex::rest::activate,
    .deactivation_func = tarvex::rest::deactivate,
    .atexit_func = nullptr,
    .get_pointer_func = nullptr,
    .version = &tarvex::rest::version,
    .friendly_error_func = nullptr,
};
