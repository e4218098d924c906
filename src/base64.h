#pragma once

#include <cstddef>

/// Standard base64 with padding (RFC 4648 section 4), and NUL.
/// \return false when `out_len` bytes do not hold it; nothing is written then.
bool tarvex_l_gfs_base64_encode(const unsigned char* inbuf, size_t in_len, char* outbuf, size_t out_len);
