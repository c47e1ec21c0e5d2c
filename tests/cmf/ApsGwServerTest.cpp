// The server record and its body.
#include "cmf/ApsGwServer.h"

#include <cstddef>
#include <string>

#include <gtest/gtest.h>

namespace Tessel::CMF {
namespace {

TEST(ApsGwServer, TheRecordHoldsTheLongestDomainAndA32BitIdentifier) {
  EXPECT_EQ(offsetof(ApsGwServerRecord, domain), 0U);
  EXPECT_EQ(sizeof(ApsGwServerRecord::domain), 256U);
  EXPECT_EQ(offsetof(ApsGwServerRecord, domainId), 256U);
  EXPECT_EQ(sizeof(ApsGwServerRecord::domainId), 4U);
  EXPECT_EQ(sizeof(ApsGwServerRecord), 264U);
}

// The record that the body is made of is gone when the handle comes back.
RefApsGwServer s_server(const std::string& domain, std::uint32_t id) {
  ApsGwServerRecord record{};
  domain.copy(record.domain, s_maxDomain);
  record.domainId = id;
  return RefApsGwServer(new ApsGwServer(record));
}

TEST(ApsGwServer, TheBodyOutlivesTheRecordItWasMadeOf) {
  const RefApsGwServer server = s_server("Example.Com", 0xfffffffeU);
  EXPECT_FALSE(server.isNull());
  EXPECT_EQ(server->domain(), "Example.Com");
  EXPECT_EQ(server->domainId(), 0xfffffffeU);
}

TEST(ApsGwServer, AHandleHoldsNothingAtFirst) {
  EXPECT_TRUE(RefApsGwServer().isNull());
}

}  // namespace
}  // namespace Tessel::CMF
