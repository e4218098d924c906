// Bases are the only URLs of the server's own: a host and a port, for which a library of URLs would be a dependency
// more and no line less.
#include "config/url.h"

#include "config/authority.h"

namespace tarvex::server {

bool is_base_url(std::string_view text) {
  const std::size_t scheme = text.starts_with("https://") ? 8 : text.starts_with("http://") ? 7 : 0;
  if (scheme == 0) return false;
  const std::optional<authority> parts = authority_parse(text.substr(scheme));
  return parts && parts->port != 0;
}

}  // namespace tarvex::server
