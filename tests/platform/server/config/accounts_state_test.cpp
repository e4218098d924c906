#include "config/accounts_state.h"

#include <gtest/gtest.h>

namespace tarvex::server {
namespace {

using std::chrono::sys_days, std::chrono::sys_seconds, std::chrono::year_month_day;
using namespace std::chrono_literals;

TEST(AccountsState, TheFirstReasonCounts) {
  const sys_seconds last = sys_days(2027y / 1 / 31) + 24h - 1s;
  const struct {
    bool disabled;
    std::optional<year_month_day> expires;
    const char* mistake;
    sys_seconds now;
    const char* closed;
  } rows[] = {
      {false, {}, "", last, ""},
      {false, 2027y / 1 / 31, "", last, ""},
      {false, 2027y / 1 / 31, "", last + 1s, "expired"},
      {false, 2027y / 1 / 31, "x", last + 1s, "expired"},
      {false, 2027y / 1 / 31, "x", last, "broken"},
      {true, 2027y / 1 / 31, "x", last + 1s, "disabled"},
  };
  for (const auto& row : rows) {
    account who = {.name = "a", .password = {}, .credential = {}};
    who.disabled = row.disabled;
    who.expires = row.expires;
    who.mistake = row.mistake;
    const auto closed = account_closed(who, row.now);
    EXPECT_EQ(closed ? account_closure_text(*closed) : "", row.closed);
  }
}

TEST(AccountsState, NetworksAdmit) {
  const struct {
    std::vector<std::string> networks;
    const char* from;
    bool admitted;
  } rows[] = {
      {{}, "203.0.113.9", true},
      {{"192.0.2.0/24"}, "192.0.2.255", true},
      {{"192.0.2.0/24"}, "192.0.3.0", false},
      {{"192.0.2.0/24"}, "::ffff:192.0.2.7", true},
      {{"192.0.2.0/24"}, "2001:db8::1", false},
      {{"::ffff:192.0.2.0/120"}, "192.0.2.7", true},
      {{"192.0.2.7"}, "192.0.2.7", true},
      {{"192.0.2.7"}, "192.0.2.6", false},
      {{"2001:db8::/33"}, "2001:db8:7fff::1", true},
      {{"2001:db8::/33"}, "2001:db8:8000::1", false},
      {{"::/0"}, "192.0.2.7", false},
      {{"0.0.0.0/0"}, "192.0.2.7", true},
      {{"192.0.2.7", "2001:db8::1"}, "2001:db8::1", true},
  };
  for (const auto& row : rows) {
    account who = {.name = "a", .password = {}, .credential = {}};
    for (const std::string& text : row.networks) who.allow.push_back(client_network_parse(text).value());
    EXPECT_EQ(account_admits(who, boost::asio::ip::make_address(row.from)), row.admitted) << row.from;
  }
  for (const char* const text : {"", "/", "192.0.2.0/33", "192.0.2.0/", "192.0.2.0/+8", "192.0.2.1/24", "::1/64",
                                 "192.0.2", "fe80::1%lo", "::ffff:192.0.2.1/120", "192.0.2.0/24/1", " 192.0.2.1"})
    EXPECT_FALSE(client_network_parse(text)) << text;
  EXPECT_EQ(client_network_text(client_network_parse("::ffff:192.0.2.0/120").value()), "192.0.2.0/24");
}

}  // namespace
}  // namespace tarvex::server
