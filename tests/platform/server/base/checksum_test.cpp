#include "base/checksum.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace tarvex::server {
namespace {

std::span<const std::byte> bytes_of(std::string_view text) {
  return std::as_bytes(std::span(text));
}

/// Fed in pieces of `step` bytes.
std::optional<std::string> checksum_of(std::string_view algorithm, std::string_view text, std::size_t step) {
  auto stream = checksum_stream::create(algorithm);
  if (!stream) return std::nullopt;
  for (std::size_t i = 0; i < text.size(); i += step) {
    stream->update(bytes_of(text.substr(i, step)));
    stream->update({});
  }
  return stream->finish();
}

TEST(Checksum, GivesTheKnownAnswers) {
  struct row {
    const char* algorithm;
    const char* text;
    const char* digest;
  };
  const row rows[] = {
      {"MD5", "", "d41d8cd98f00b204e9800998ecf8427e"},
      {"md5", "abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"SHA1", "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {"Sha-1", "", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {"SHA-256", "abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"SHA512", "abc",
       "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
       "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
      {"CRC32", "123456789", "cbf43926"},
      {"crc32", "", "00000000"},
      {"ADLER32", "Wikipedia", "11e60398"},
      {"adler32", "", "00000001"},
  };
  for (const row& row : rows) {
    EXPECT_EQ(checksum_of(row.algorithm, row.text, 1), row.digest) << row.algorithm;
    EXPECT_EQ(checksum_of(row.algorithm, row.text, 100), row.digest) << row.algorithm;
  }
  for (const char* unknown : {"", "SHA", "MD5 ", "SHA3-256"}) EXPECT_FALSE(checksum_stream::create(unknown)) << unknown;
  for (const std::string_view name : checksum_names()) EXPECT_TRUE(checksum_stream::create(name)) << name;
}

}  // namespace
}  // namespace tarvex::server
