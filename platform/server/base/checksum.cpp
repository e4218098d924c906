#include "base/checksum.h"

#include "base/text.h"

#include <openssl/evp.h>
#include <zlib.h>

#include <algorithm>
#include <array>

namespace tarvex::server {

namespace {

std::uint32_t add_crc32(std::uint32_t sum, std::span<const std::byte> bytes) {
  return static_cast<std::uint32_t>(crc32_z(sum, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
}

std::uint32_t add_adler32(std::uint32_t sum, std::span<const std::byte> bytes) {
  return static_cast<std::uint32_t>(adler32_z(sum, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
}

struct algorithm_row {
  std::string_view name;
  std::string_view alias;
  const EVP_MD* (*digest)();  ///< null: a running sum
  std::uint32_t (*add)(std::uint32_t sum, std::span<const std::byte> bytes);
  std::uint32_t start;
};
constexpr algorithm_row ALGORITHMS[] = {
    {"MD5", "", EVP_md5, nullptr, 0},
    {"SHA1", "SHA-1", EVP_sha1, nullptr, 0},
    {"SHA256", "SHA-256", EVP_sha256, nullptr, 0},
    {"SHA512", "SHA-512", EVP_sha512, nullptr, 0},
    {"CRC32", "", nullptr, add_crc32, 0},
    {"ADLER32", "", nullptr, add_adler32, 1},  // RFC 1950 section 8.2: starts at 1
};

constexpr auto NAMES = [] {
  std::array<std::string_view, std::size(ALGORITHMS)> names;
  std::transform(std::begin(ALGORITHMS), std::end(ALGORITHMS), names.begin(), [](const auto& row) { return row.name; });
  return names;
}();

const algorithm_row* find(std::string_view algorithm) {
  const auto row = std::find_if(std::begin(ALGORITHMS), std::end(ALGORITHMS), [&](const algorithm_row& candidate) {
    return same_word(algorithm, candidate.name) || same_word(algorithm, candidate.alias);
  });
  return algorithm.empty() || row == std::end(ALGORITHMS) ? nullptr : &*row;
}

std::string hex(std::span<const unsigned char> bytes) {
  std::string text;
  append_hex(text, bytes);
  return text;
}

std::array<unsigned char, 4> big_endian(std::uint32_t sum) {
  return {static_cast<unsigned char>(sum >> 24), static_cast<unsigned char>(sum >> 16),
          static_cast<unsigned char>(sum >> 8), static_cast<unsigned char>(sum)};
}

}  // namespace

std::span<const std::string_view> checksum_names() {
  return NAMES;
}

std::string_view checksum_name(std::string_view algorithm) {
  const algorithm_row* const row = find(algorithm);
  return row ? row->name : std::string_view();
}

void checksum_stream::free_digest::operator()(evp_md_ctx_st* digest) const noexcept {
  EVP_MD_CTX_free(digest);
}

std::optional<checksum_stream> checksum_stream::create(std::string_view algorithm) {
  const algorithm_row* const row = find(algorithm);
  if (row == nullptr) return std::nullopt;
  checksum_stream made;
  made.add_ = row->add;
  made.sum_ = row->start;
  if (row->digest == nullptr) return made;
  made.digest_.reset(EVP_MD_CTX_new());
  if (made.digest_ == nullptr || EVP_DigestInit_ex(made.digest_.get(), row->digest(), nullptr) != 1)
    return std::nullopt;
  return made;
}

void checksum_stream::update(std::span<const std::byte> bytes) {
  if (bytes.empty()) return;  // zlib takes a null pointer as the wish to start afresh
  if (digest_ == nullptr) {
    sum_ = add_(sum_, bytes);
  } else if (EVP_DigestUpdate(digest_.get(), bytes.data(), bytes.size()) != 1) {
    failed_ = true;
  }
}

std::optional<std::string> checksum_stream::finish() {
  if (digest_ == nullptr) return hex(big_endian(sum_));
  std::array<unsigned char, EVP_MAX_MD_SIZE> value = {};
  unsigned int length = 0;
  if (failed_ || EVP_DigestFinal_ex(digest_.get(), value.data(), &length) != 1) return std::nullopt;
  return hex({value.data(), length});
}

}  // namespace tarvex::server
