#include "net/tls_identity.h"

#include "support/temporary_folder.h"
#include "tls_fixture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace tarvex::server::test {
namespace {

class TlsIdentity : public testing::Test {
 protected:
  TlsIdentity() { tls_files_make(folder.path()); }

  static void run(const std::string& command) { EXPECT_EQ(std::system((command + " 2>/dev/null").c_str()), 0); }

  tls_identity_answer load(const std::string& certificate, const std::string& key) const {
    configuration config;
    config.tls_certificate = folder.path(certificate);
    config.tls_key = folder.path(key);
    return tls_identity_load(config);
  }

  temporary_folder folder;
};

TEST_F(TlsIdentity, FilesThatCannotServeAreToldWhy) {
  const std::string in = "cd " + folder.path() + " && ";
  run(in + "openssl pkey -in key.pem -aes128 -passout pass:x -out encrypted.pem");
  run(in +
      "openssl ec -in key.pem -out plain.pem && openssl ecparam -name prime256v1 -out parameters.pem && "
      "cat parameters.pem plain.pem > with-parameters.pem");
  run(in + "openssl ec -in key.pem -aes128 -passout pass:x -out old-encrypted.pem");
  run(in + "openssl genpkey -algorithm rsa -out other.pem");
  run(in + "cat certificate.pem key.pem > both.pem && cat certificate.pem certificate.pem > chain.pem");
  run(in +
      "sed 's/^[A-Za-z0-9]\\{8\\}/AAAAAAAA/' certificate.pem > spoilt.pem && head -c 100 certificate.pem > cut.pem");
  const struct {
    const char* certificate;
    const char* key;
    const char* error;
  } rows[] = {
      {"certificate.pem", "key.pem", ""},
      {"both.pem", "both.pem", ""},
      {"chain.pem", "with-parameters.pem", ""},
      {"certificate.pem", "encrypted.pem", "without a password"},
      {"certificate.pem", "old-encrypted.pem", "without a password"},
      {"certificate.pem", "other.pem", "does not fit"},
      {"certificate.pem", "certificate.pem", "no private key"},
      {"key.pem", "key.pem", "no certificate"},
      {"spoilt.pem", "key.pem", "cannot be read"},
      {"cut.pem", "key.pem", "no certificate"},
      {"missing.pem", "key.pem", "No such file"},
      {".", "key.pem", "directory"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.certificate << " " << row.key);
    const tls_identity_answer answer = load(row.certificate, row.key);
    EXPECT_EQ(answer.identity != nullptr, *row.error == '\0') << answer.error;
    EXPECT_NE(answer.error.find(row.error), std::string::npos) << answer.error;
  }
  EXPECT_EQ(tls_identity_load({}).identity, nullptr);
  EXPECT_EQ(tls_identity_load({}).error, "");
}

/// Counts a text in this process's memory. It stands in the needle with every bit turned over, as whoever looks for it
/// must not be what is found.
int count_in_memory(const std::string& needle) {
  FILE* const maps = fopen("/proc/self/maps", "r");
  std::string line(512, '\0');
  int found = 0;
  while (fgets(line.data(), static_cast<int>(line.size()), maps) != nullptr) {
    unsigned long first = 0, end = 0;
    char access[5] = {};
    if (sscanf(line.c_str(), "%lx-%lx %4s", &first, &end, access) != 3 || access[1] != 'w') continue;
    for (unsigned long at = first; at + needle.size() <= end; ++at) {
      const char* const here = reinterpret_cast<const char*>(at);
      std::size_t same = 0;
      while (same < needle.size() && here[same] == static_cast<char>(~needle[same])) ++same;
      if (same == needle.size()) ++found;
    }
  }
  fclose(maps);
  return found;
}

/// Sessions are forked from whoever has read the key: what it leaves behind, they would have.
TEST_F(TlsIdentity, TheTextOfTheKeyDoesNotStayInMemory) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "AddressSanitizer keeps what is freed, and its own memory cannot be searched";
#endif
  const int file = open(folder.path("key.pem").c_str(), O_RDONLY);
  std::string needle;  // 20 digits out of each line's end, where they stay longest
  constexpr off_t SECOND_LINE = 28 + 65 + 40;
  for (off_t at = SECOND_LINE; at < SECOND_LINE + 20; ++at) {
    volatile char byte = 0;
    ASSERT_EQ(pread(file, const_cast<char*>(&byte), 1, at), 1);
    needle += static_cast<char>(~byte);
    byte = 0;
  }
  close(file);
  ASSERT_EQ(count_in_memory(needle), 0);
  std::string copy;
  for (const char byte : needle) copy += static_cast<char>(~byte);
  ASSERT_GE(count_in_memory(needle), 1) << "the search finds nothing";
  copy.assign(copy.size(), 'x');
  const tls_identity_answer answer = load("certificate.pem", "key.pem");
  ASSERT_NE(answer.identity, nullptr);
  EXPECT_EQ(count_in_memory(needle), 0);
}

}  // namespace
}  // namespace tarvex::server::test
