// Networks as --trust names them, and the hosts in them.
#include "serve/base/Network.h"

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "failure/Failure.h"

namespace Tessel::Serve {
namespace {

using testing::AllOf;
using testing::Property;
using testing::Throws;

bool s_isIn(const char* network, const char* host) {
  return isIn({parseNetwork("--trust", network)}, host);
}

TEST(Network, HasTheHostsWhoseFirstBitsAreItsOwn) {
  EXPECT_TRUE(s_isIn("192.0.2.0/24", "192.0.2.255"));
  EXPECT_FALSE(s_isIn("192.0.2.0/24", "192.0.3.0"));
  EXPECT_TRUE(s_isIn("192.0.2.128/25", "192.0.2.129"));
  EXPECT_FALSE(s_isIn("192.0.2.128/25", "192.0.2.127"));
  EXPECT_TRUE(s_isIn("192.0.2.7", "192.0.2.7"));
  EXPECT_FALSE(s_isIn("192.0.2.7", "192.0.2.6"));
  EXPECT_TRUE(s_isIn("2001:db8::/32", "2001:db8:1::1"));
  EXPECT_FALSE(s_isIn("2001:db8::/32", "2001:db9::1"));
  EXPECT_TRUE(s_isIn("0.0.0.0/0", "198.51.100.1"));
  EXPECT_FALSE(s_isIn("0.0.0.0/0", "2001:db8::1"));
  EXPECT_TRUE(s_isIn("192.0.2.0/24", "::ffff:192.0.2.1"));
  EXPECT_TRUE(s_isIn("::/0", "192.0.2.1"));
}

TEST(Network, HasNoHostWithoutAnAddress) {
  for (const char* host : {"", "unknown", "192.0.2", "192.0.2.1 ", "mail.example.com", "1"}) {
    EXPECT_FALSE(s_isIn("0.0.0.0/0", host)) << host;
    EXPECT_FALSE(s_isIn("::/0", host)) << host;
  }
  EXPECT_FALSE(isIn({}, "192.0.2.1"));
}

TEST(Network, IsWrittenWithAllItsBits) {
  const std::pair<std::string, std::vector<std::string>> refused[] = {
      {"is not a network", {"", "/", "name/8", "192.0.2/24", "192.0.2.0 /24"}},
      {"has not a number of bits after its '/'",
       {"192.0.2.0/", "192.0.2.0/33", "192.0.2.0/-1", "192.0.2.0/24x", "2001:db8::/129"}},
      {"has bits set behind those of the network", {"192.0.2.1/24", "2001:db8::1/64"}}};
  for (const auto& [why, texts] : refused) {
    for (const std::string& text : texts) {
      EXPECT_THAT([&text = text] { parseNetwork("--trust", text); },
                  Throws<Tool::Failure>(
                      AllOf(Property(&Tool::Failure::why, "'" + text + "' " + why),
                            Property(&Tool::Failure::hint,
                                     "write 192.0.2.0/24, 2001:db8::/32, or one address"))));
    }
  }
}

}  // namespace
}  // namespace Tessel::Serve
