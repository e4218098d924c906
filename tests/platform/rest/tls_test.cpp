#include "http_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>

namespace {

/// One connection's worth of an HTTPS server, on a free port; the certificate is made for `name`.
class tls_server {
 public:
  tls_server(const std::string& directory, const std::string& name) {
    const std::string files = " -keyout " + directory + "/key.pem -out " + directory + "/cert.pem";
    const std::string make =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=test -days 1";
    if (std::system((make + " -addext subjectAltName=" + name + files + " 2>/dev/null").c_str()) != 0) std::abort();
    const std::string serve = "exec openssl s_server -4 -accept 127.0.0.1:0 -naccept 1 -www 2>&1";
    process_.reset(popen((serve + " -key " + directory + "/key.pem -cert " + directory + "/cert.pem").c_str(), "r"));
    char line[200];
    while (fgets(line, sizeof line, process_.get()) != nullptr && sscanf(line, "ACCEPT 127.0.0.1:%d", &port_) != 1) {
    }
  }

  [[nodiscard]] std::string url() const { return "https://127.0.0.1:" + std::to_string(port_) + "/"; }

 private:
  int port_ = 0;
  std::unique_ptr<FILE, decltype(&pclose)> process_ = {nullptr, pclose};
};

/// Activates the module afresh with the given authorities; null: the system's.
void activate_with(const char* file) {
  ASSERT_EQ(tarvex_module_deactivate(&tarvex_i_dsi_rest_module), 0);
  file == nullptr ? unsetenv("TARVEX_DSI_REST_CA_FILE") : setenv("TARVEX_DSI_REST_CA_FILE", file, 1);
  ASSERT_EQ(tarvex_module_activate(&tarvex_i_dsi_rest_module), 0);
}

TEST(Tls, TrustsOnlyTheNamedAuthoritiesAndTheHostsName) {
  std::string directory = testing::TempDir() + "rest_tls_XXXXXX";
  ASSERT_NE(mkdtemp(directory.data()), nullptr);
  const std::string certificate = directory + "/cert.pem";
  for (const char* name : {"IP:127.0.0.1", "DNS:elsewhere.example"}) {
    for (const char* authorities : {certificate.c_str(), static_cast<const char*>(nullptr)}) {
      SCOPED_TRACE(std::string(name) + (authorities == nullptr ? ", system" : ", named"));
      const tls_server server(directory, name);
      activate_with(authorities);
      const rest_call call = rest_call{.url = server.url()}.run();
      const bool trusted = authorities != nullptr && std::string(name) == "IP:127.0.0.1";
      EXPECT_EQ(call.succeeded, trusted) << call.message;
      EXPECT_EQ(call.body.empty(), !trusted);
      EXPECT_FALSE(call.retryable);
      EXPECT_EQ(call.message.find("certificate was refused") != std::string::npos, !trusted) << call.message;
    }
  }
  activate_with("/nonexistent.pem");
  EXPECT_THAT(rest_call{.url = "https://127.0.0.1:1/"}.run().succeeded, false);
  activate_with(nullptr);
  std::filesystem::remove_all(directory);
}

}  // namespace
