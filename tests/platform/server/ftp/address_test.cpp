#include "ftp/address.h"

#include <gtest/gtest.h>

namespace tarvex::server {
namespace {

using boost::asio::ip::make_address;

std::string text(const std::optional<host_port>& address) {
  return address ? address->host.to_string() + " " + std::to_string(address->port) : "none";
}

TEST(Address, PortTakesSixNumbersOfAByte) {
  const std::pair<const char*, const char*> rows[] = {
      {"127,0,0,1,4,1", "127.0.0.1 1025"},
      {"255,255,255,255,255,255", "255.255.255.255 65535"},
      {"0,0,0,0,0,0", "0.0.0.0 0"},
      {"127,0,0,1,4", "none"},
      {"127,0,0,1,4,1,1", "none"},
      {"127,0,0,1,4,1,", "none"},
      {"127,0,0,1,256,1", "none"},
      {"127,0,0,-1,4,1", "none"},
      {"127,0,0, 1,4,1", "none"},
      {",,,,,", "none"},
      {"", "none"},
      {"a,0,0,1,4,1", "none"},
  };
  for (const auto& [argument, expected] : rows) EXPECT_EQ(text(port_address_parse(argument)), expected) << argument;
  EXPECT_EQ(port_address_format(boost::asio::ip::make_address_v4("192.0.2.70"), 65534), "192,0,2,70,255,254");
}

TEST(Address, ExtendedFormTellsProtocolAndTargetApart) {
  struct row {
    const char* argument;
    const char* protocol;  ///< null: not of the form
    const char* target;
  };
  const row rows[] = {
      {"|1|127.0.0.1|1025|", "1", "127.0.0.1 1025"},
      {"|2|0:0::1|65535|", "2", "::1 65535"},
      {"!2!fe80::1!5!", "2", "fe80::1 5"},
      {"|3|anything|5|", "3", "none"},
      {"|1|::1|5|", "1", "none"},
      {"|2|127.0.0.1|5|", "2", "none"},
      {"|1|127.0.0.1|65536|", "1", "none"},
      {"|1|127.0.0.1||", "1", "none"},
      {"|1||5|", "1", "none"},
      {"|||||", nullptr, ""},
      {"||127.0.0.1|5|", nullptr, ""},
      {"|x|127.0.0.1|5|", nullptr, ""},
      {"|1|127.0.0.1|5", nullptr, ""},
      {"|1|127.0.0.1|5|x", nullptr, ""},
      {"1|127.0.0.1|5|", nullptr, ""},
      {"", nullptr, ""},
  };
  for (const row& row : rows) {
    const auto address = extended_address_parse(row.argument);
    ASSERT_EQ(address.has_value(), row.protocol != nullptr) << row.argument;
    if (!address) continue;
    EXPECT_EQ(address->protocol, row.protocol) << row.argument;
    EXPECT_EQ(text(address->target), row.target) << row.argument;
  }
}

TEST(Address, ScopeMakesNoOtherHost) {
  EXPECT_TRUE(same_host(make_address("fe80::1"), make_address("fe80::1%lo")));
  EXPECT_FALSE(same_host(make_address("fe80::1"), make_address("fe80::2")));
  EXPECT_FALSE(same_host(make_address("0.0.0.1"), make_address("::1")));
}

}  // namespace
}  // namespace tarvex::server
