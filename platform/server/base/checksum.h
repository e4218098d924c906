#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace tarvex::server {

/// The algorithms that checksum_stream knows, by the names that FEAT lists.
std::span<const std::string_view> checksum_names();

/// Which of checksum_names an algorithm is that a client names so: case does not matter, and SHA-1, SHA-256 and
/// SHA-512 are known too. Empty: none.
std::string_view checksum_name(std::string_view algorithm);

/// A checksum in the making. One thread at a time.
class checksum_stream {
 public:
  /// \param algorithm  as for checksum_name
  /// \return nothing for an algorithm that is not known or that OpenSSL does not permit.
  [[nodiscard]] static std::optional<checksum_stream> create(std::string_view algorithm);

  void update(std::span<const std::byte> bytes);

  /// Digest of all bytes so far in lower-case hex (CRC32 and ADLER32: 8 digits); nothing when OpenSSL failed.
  /// Once; the stream takes no bytes afterwards.
  [[nodiscard]] std::optional<std::string> finish();

 private:
  using running_sum = std::uint32_t (*)(std::uint32_t sum, std::span<const std::byte> bytes);
  struct free_digest {
    void operator()(evp_md_ctx_st* digest) const noexcept;
  };

  std::unique_ptr<evp_md_ctx_st, free_digest> digest_;  ///< null: sum_ is used
  running_sum add_ = nullptr;
  std::uint32_t sum_ = 0;
  bool failed_ = false;
};

}  // namespace tarvex::server
