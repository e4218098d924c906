#pragma once

#include <string>
#include <string_view>

namespace tarvex::server {

/// An answer of HTTP/1.1 with a page of one line.
/// \param status  and its reason: "404 Not Found"
/// \param text    anything; what means something in HTML is escaped
[[nodiscard]] std::string redirect_page(std::string_view status, std::string_view text);

}  // namespace tarvex::server
