/// \file
/// The library's module, and what its activation read from the environment.
#pragma once

#include <string>

namespace tarvex::rest {

[[nodiscard]] bool module_active() noexcept;

/// The proxy that requests go through, as libcurl reads it; empty: none.
[[nodiscard]] const std::string& proxy() noexcept;

/// File with the certificate authorities to trust; empty: the system's.
[[nodiscard]] const std::string& certificate_authorities_file() noexcept;

}  // namespace tarvex::rest
