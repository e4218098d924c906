#include "client.h"

#include "error.h"
#include "module.h"

namespace tarvex::rest {
namespace {

constexpr long KEPT_CONNECTIONS = 8;

thread_local client thread_client;

tarvex_result_t make_client(client& made) {
  multi_ptr multi(curl_multi_init());
  easy_ptr easy(curl_easy_init());
  if (!multi || !easy) return out_of_memory();
  if (curl_multi_setopt(multi.get(), CURLMOPT_MAXCONNECTS, KEPT_CONNECTIONS) != CURLM_OK) return out_of_memory();
  made.multi = std::move(multi);
  made.easy = std::move(easy);
  return TARVEX_SUCCESS;
}

}  // namespace

tarvex_result_t client_lease::acquire() {
  if (!module_active()) return fail(attempt::useless, "The REST client's module is not active.");
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
