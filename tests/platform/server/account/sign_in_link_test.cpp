#include "account/sign_in_link.h"

#include "account/redirect_page.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace tarvex::server {
namespace {

using verdict = redirect_answer::verdict;

constexpr const char* STATE = "0123456789abcdef0123456789abcdef";

redirect_address redirect_of(const std::string& text) {
  const auto parsed = redirect_parse(text);
  if (parsed) return *parsed;
  ADD_FAILURE() << text;
  return {};
}

TEST(SignInLink, TakesARedirectApart) {
  struct row {
    const char* text;
    const char* host;
    bool loopback;
    const char* at_port_99;
  };
  for (const row& each : {
           row{"http://127.0.0.1/callback", "127.0.0.1", true, "http://127.0.0.1:99/callback"},
           row{"http://127.8.0.1:4000/", "127.8.0.1", true, "http://127.8.0.1:99/"},
           row{"http://[::1]:5/a/b", "[::1]", true, "http://[::1]:99/a/b"},
           row{"http://LOCALHOST/x", "LOCALHOST", true, "http://LOCALHOST:99/x"},
           row{"https://example.com/back", "example.com", false, "https://example.com:99/back"},
           row{"https://localhost.example.com/", "localhost.example.com", false, "https://localhost.example.com:99/"},
       }) {
    const redirect_address parsed = redirect_of(each.text);
    EXPECT_EQ(parsed.host, each.host);
    EXPECT_EQ(parsed.loopback, each.loopback) << each.text;
    EXPECT_EQ(parsed.with_port(99), each.at_port_99);
    EXPECT_EQ(parsed.with_port(parsed.port), each.text);
  }
  for (const char* const text : {"", "http://example.com/", "ftp://127.0.0.1/", "http://127.0.0.1", "/callback"})
    EXPECT_FALSE(redirect_parse(text)) << text;
}

TEST(SignInLink, AsksWithAStateOfItsOwnEachTime) {
  std::set<std::string> states;
  for (int i = 0; i < 100; ++i) states.insert(new_sign_in_state());
  EXPECT_EQ(states.size(), 100U);
  EXPECT_EQ(states.begin()->size(), 32U);
  EXPECT_EQ(authorise_address("https://box.example/a", "id&x=1", "http://127.0.0.1:5/c", "s"),
            "https://box.example/a?response_type=code&client_id=id%26x%3D1&redirect_uri=http%3A%2F%2F127.0.0.1%3A5%2Fc"
            "&state=s");
}

TEST(SignInLink, ReadsWhatABrowserBrings) {
  const redirect_address redirect = redirect_of("http://127.0.0.1/callback");
  const std::string state = std::string("state=") + STATE;
  struct row {
    std::string target;
    verdict how;
    const char* what = "";
  };
  for (const row& each : {
           row{"/callback?code=a%2Bb+c&" + state, verdict::granted, "a+b c"},
           row{"/callback?" + state + "&code=x&more=1#part", verdict::granted, "x"},
           row{"/callback?" + state + "&error=access_denied&error_description=No%0Athanks", verdict::denied,
               "access_denied: No?thanks"},
           row{"/callback?" + state + "&error=server_error", verdict::denied, "server_error"},
           row{"/callback?" + state, verdict::denied, "Box's answer has neither a code nor an error"},
           row{"/callback?" + state + "&code=x&code=y", verdict::denied,
               "Box's answer has neither a code nor an error"},
           row{"/callback?code=x&state=0123456789abcdef0123456789abcdeF", verdict::wrong_state},
           row{"/callback?code=x&state=0123456789abcdef", verdict::wrong_state},
           row{"/callback?code=x&state=" + std::string(STATE) + "0", verdict::wrong_state},
           row{"/callback?code=x&" + state + "&" + state, verdict::wrong_state},
           row{"/callback?code=x&state=%", verdict::wrong_state},
           row{"/callback?code=x", verdict::wrong_state},
           row{"/callback", verdict::wrong_state},
           row{"/callback#?code=x&" + state, verdict::wrong_state},
           row{"/callback/?code=x&" + state, verdict::elsewhere},
           row{"/Callback?code=x&" + state, verdict::elsewhere},
           row{"?code=x&" + state, verdict::elsewhere},
           row{"", verdict::elsewhere},
       }) {
    const redirect_answer got = redirect_read(each.target, redirect, STATE);
    EXPECT_EQ(got.how, each.how) << each.target;
    EXPECT_EQ(got.how == verdict::denied ? got.reason : got.code.text(), each.what) << each.target;
  }
}

TEST(SignInLink, ReadsWhatAPersonPastes) {
  const std::string rest = std::string("?code=x&state=") + STATE;
  struct row {
    const char* redirect;
    std::string pasted;
    bool taken;
  };
  for (const row& each : {
           row{"http://127.0.0.1/callback", "http://127.0.0.1/callback" + rest, true},
           row{"http://127.0.0.1/callback", "http://127.0.0.1:1234/callback" + rest, true},
           row{"http://localhost/callback", "http://LocalHost/callback" + rest, true},
           row{"http://[::1]/callback", "http://[::1]:7/callback" + rest, true},
           row{"https://example.com/back", "https://example.com/back" + rest, true},
           row{"https://example.com/back", "https://example.com:8443/back" + rest, false},
           row{"https://example.com/back", "http://example.com/back" + rest, false},
           row{"http://127.0.0.1/callback", "http://127.0.0.1.example.com/callback" + rest, false},
           row{"http://127.0.0.1/callback", "http://localhost/callback" + rest, false},
           row{"http://127.0.0.1/callback", "http://x@127.0.0.1/callback" + rest, false},
           row{"http://127.0.0.1/callback", "/callback" + rest, false},
           row{"http://127.0.0.1/callback", "http", false},
           row{"http://127.0.0.1/callback", "://", false},
           row{"http://127.0.0.1/callback", "", false},
       }) {
    const redirect_answer got = redirect_read_pasted(each.pasted, redirect_of(each.redirect), STATE);
    EXPECT_EQ(got.how, each.taken ? verdict::granted : verdict::elsewhere) << each.pasted;
  }
}

TEST(RedirectPage, HoldsTextOfOthersAsText) {
  const std::string page = redirect_page("403 Forbidden", "<b>&\r\nSet-Cookie: x</b>");
  EXPECT_TRUE(page.starts_with("HTTP/1.1 403 Forbidden\r\n"));
  EXPECT_NE(page.find("<p>&lt;b&gt;&amp;??Set-Cookie: x&lt;/b&gt;</p>"), std::string::npos) << page;
  const std::size_t body = page.find("\r\n\r\n") + 4;
  EXPECT_NE(page.find("Content-Length: " + std::to_string(page.size() - body) + "\r\n"), std::string::npos);
}

}  // namespace
}  // namespace tarvex::server
