/// \file
/// The two origins of Box: of its API and of its uploads.
#pragma once

#include <initializer_list>
#include <string>

namespace tarvex::box {

/// Reads the two bases from TARVEX_BOX_API_BASE and TARVEX_BOX_UPLOAD_BASE; unset, they are Box's own hosts.
void base_urls_read() noexcept;

/// URLs below the bases; the pieces are joined as they are, null ones left out.
std::string api_url(std::initializer_list<const char*> pieces);
std::string upload_url(std::initializer_list<const char*> pieces);

}  // namespace tarvex::box
