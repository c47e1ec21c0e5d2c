// Look-up of domains: found, not there, could not ask.
#include "cmf/ApsGwServerCache.h"

#include <string>
#include <vector>

#include "cmf/ConfigurationTest.h"
#include "cmf/Writer.h"

namespace Tessel::CMF {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class ApsGwServerCacheTest : public ConfigurationTest {};

TEST_F(ApsGwServerCacheTest, FindGivesTheRecordOfADomainInAnyLetterCase) {
  const std::uint32_t id = addDomain("Example.Com", {});
  const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  for (const char* domain : {"Example.Com", "example.com", "EXAMPLE.COM"}) {
    const RefApsGwServer server = cache->find(domain);
    ASSERT_FALSE(server.isNull()) << domain;
    EXPECT_EQ(server->domain(), "Example.Com");
    EXPECT_EQ(server->domainId(), id);
  }
}

TEST_F(ApsGwServerCacheTest, AnUnknownDomainGivesAHandleThatHoldsNothing) {
  addDomain("example.com", {});
  const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  for (const std::string& domain :
       {std::string("example.org"), std::string("example.co"), std::string("example.com."),
        std::string(), std::string(255, 'x'), std::string(256, 'x'), std::string(100000, 'x'),
        std::string("example.com\0", 12), std::string("\xff\xfe")}) {
    EXPECT_TRUE(cache->find(domain).isNull()) << domain;
  }
}

TEST_F(ApsGwServerCacheTest, LettersOutsideAsciiKeepTheirCase) {
  addDomain("caf\xc3\xa9.example", {});
  const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  EXPECT_FALSE(cache->find("CAF\xc3\xa9.EXAMPLE").isNull());
  EXPECT_TRUE(cache->find("CAF\xc3\x89.EXAMPLE").isNull());
}

TEST_F(ApsGwServerCacheTest, AnAbsentConfigurationIsAFailureAndStaysAbsent) {
  const std::string detail = failureOf([] { RefApsGwServerCache::instance(false); });
  EXPECT_THAT(detail, HasSubstr(path()));
  EXPECT_THAT(detail, HasSubstr("No such file or directory"));
  EXPECT_THAT(detail, HasSubstr("TSL_CMF_PATH"));
  EXPECT_THAT(failureOf([] { RefApsGwServerCache::instance(true); }), HasSubstr(path()));
}

TEST_F(ApsGwServerCacheTest, ALookUpInAConfigurationThatWasNeverCommittedIsAFailure) {
  { const Writer givenUp; }
  const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  EXPECT_THAT(failureOf([&] { static_cast<void>(cache->find("example.com")); }),
              HasSubstr("nothing was stored yet"));
  EXPECT_THAT(failureOf([&] { static_cast<void>(cache->domains()); }), HasSubstr(path()));
  addDomain("example.com", {});
  EXPECT_FALSE(cache->find("example.com").isNull());
}

TEST_F(ApsGwServerCacheTest, AnOpenConfigurationShowsWhatWasCommittedSince) {
  addDomain("a.example", {});
  const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  EXPECT_TRUE(cache->find("b.example").isNull());
  EXPECT_EQ(inChild([] { addDomain("b.example", {}); }), 0);
  EXPECT_FALSE(cache->find("b.example").isNull());
}

TEST_F(ApsGwServerCacheTest, DomainsAreListedInOrderOfTheirLowerCasedNames) {
  std::vector<std::string> got;
  {
    Writer writer;
    writer.commit();
  }
  EXPECT_TRUE(RefApsGwServerCache::instance(false)->domains().empty());
  addDomain("b.example", {"user"});
  addDomain("C.example", {});
  addDomain("A.example", {});
  for (const ApsGwServerRecord& record : RefApsGwServerCache::instance(false)->domains()) {
    got.emplace_back(record.domain);
  }
  EXPECT_THAT(got, ElementsAre("A.example", "b.example", "C.example"));
}

TEST_F(ApsGwServerCacheTest, AMalformedServerRecordIsAFailure) {
  addDomain("example.com", {});
  const std::string key = text(Key(s_commonGroup, s_domainTable, "short.example"));
  putRaw(path(), key, std::string(8, 'x'));
  const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  EXPECT_THAT(failureOf([&] { static_cast<void>(cache->find("short.example")); }),
              HasSubstr("malformed record"));
  EXPECT_THAT(failureOf([&] { static_cast<void>(cache->domains()); }),
              HasSubstr("malformed server record"));
  putRaw(path(), key, std::string(sizeof(ApsGwServerRecord), 'x'));
  EXPECT_THAT(failureOf([&] { static_cast<void>(cache->find("short.example")); }),
              HasSubstr("malformed server record"));
  EXPECT_THAT(failureOf([&] { static_cast<void>(cache->domains()); }),
              HasSubstr("malformed server record"));
  EXPECT_FALSE(cache->find("example.com").isNull());
}

TEST_F(ApsGwServerCacheTest, ManyDomainsAreFoundAndListed) {
  constexpr int s_count = 5000;
  {
    Writer writer;
    for (const std::string& name : manyUsers(s_count)) writer.addDomain(name + ".example");
    writer.commit();
  }
  const RefApsGwServerCache cache = RefApsGwServerCache::instance(false);
  EXPECT_EQ(cache->domains().size(), s_count);
  EXPECT_FALSE(cache->find("USER0000000.example").isNull());
  EXPECT_FALSE(cache->find("user0004999.example").isNull());
  EXPECT_TRUE(cache->find("user0005000.example").isNull());
}

}  // namespace
}  // namespace Tessel::CMF
