#include "net/data_protection.h"

#include "net/data_socket.h"
#include "net/tls_session.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace tarvex::server {

boost::asio::awaitable<std::string> data_protect(data_socket& fresh, data_protection wanted) {
  if (wanted.tls == nullptr) co_return std::string();
  std::unique_ptr<tls_engine> engine = wanted.tls->data_engine();
  const auto error = co_await fresh.secure(std::move(engine));
  if (error) co_return "The TLS handshake of the data connection failed: " + error.message() + ".";
  if (wanted.must_resume && !fresh.resumed())
    co_return std::string("The data connection has to resume the TLS session of the control connection.");
  const certificate_names shown = fresh.peer_certificate();
  if (!wanted.certificate.empty() && std::find(shown.begin(), shown.end(), wanted.certificate) == shown.end())
    co_return std::string("The data connection has to show the certificate of the control connection.");
  co_return std::string();
}

}  // namespace tarvex::server
