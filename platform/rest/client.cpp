#include "client.h"

#include "error.h"
#include "module.h"

namespace tarvex::rest {
namespace {

constexpr long KEPT_CONNECTIONS = 8;

thread_local client thread_client;

/// Makes what is missing.
bool complete_client(client& made) {
  if (!made.multi) {
    multi_ptr multi(curl_multi_init());
    if (!multi || curl_multi_setopt(multi.get(), CURLMOPT_MAXCONNECTS, KEPT_CONNECTIONS) != CURLM_OK) return false;
    made.multi = std::move(multi);
  }
  if (!made.easy) made.easy.reset(curl_easy_init());
  return made.easy != nullptr;
}

}  // namespace

tarvex_result_t client_lease::acquire() {
  if (!module_active()) return fail(attempt::useless, "The REST client's module is not active.");
  if (thread_client.busy) return fail(attempt::useless, "A request cannot be made inside another request's callback.");
  if (!complete_client(thread_client)) return out_of_memory();
  client_ = &thread_client;
  client_->busy = true;
  return TARVEX_SUCCESS;
}

client_lease::~client_lease() {
  if (client_ == nullptr) return;
  (void)curl_multi_remove_handle(client_->multi.get(), client_->easy.get());  // fine when it was never added
  if (spoilt_) {
    client_->easy.reset();
  } else {
    curl_easy_reset(client_->easy.get());  // forgets tokens and borrowed pointers
  }
  client_->busy = false;
}

}  // namespace tarvex::rest
