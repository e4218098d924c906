/// \file
/// Running digests in the records that the plug-in keeps. False: OpenSSL refused.
#pragma once

#include <openssl/md5.h>
#include <openssl/sha.h>

#include <array>
#include <cstddef>
#include <span>
#include <string>

namespace tarvex::box {

using sha1_digest = std::array<unsigned char, SHA_DIGEST_LENGTH>;
using md5_digest = std::array<unsigned char, MD5_DIGEST_LENGTH>;

bool sha1_begin(SHA_CTX& context);
bool sha1_update(SHA_CTX& context, const void* data, size_t length);
bool sha1_finish(SHA_CTX& context, sha1_digest& digest);
bool md5_begin(MD5_CTX& context);
bool md5_update(MD5_CTX& context, const void* data, size_t length);
bool md5_finish(MD5_CTX& context, md5_digest& digest);

/// Digest of one piece of memory.
bool sha1_of(const void* data, size_t length, sha1_digest& digest);

/// Lower-case hex, two digits for each byte.
std::string hex_text(std::span<const unsigned char> bytes);

/// What the "digest" header of uploads holds: "sha=" and the digest in base64.
std::string digest_header(const sha1_digest& digest);

}  // namespace tarvex::box
