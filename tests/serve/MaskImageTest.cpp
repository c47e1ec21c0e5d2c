// An address-mask table in memory: plain rows in both directions, and wildcard rows as the library
// orders them.
#include "serve/image/MaskImage.h"

#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "tables/AddressKey.h"
#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using Direction = MaskImage::Direction;

const std::optional<std::string> s_none;

std::optional<std::string> s_public(const MaskImage& image, const std::string& address) {
  std::string key;
  EXPECT_TRUE(Tool::addressKey(address, key)) << address;
  return image.find(Direction::ToPublic, key);
}

std::optional<std::string> s_private(const MaskImage& image, const std::string& address) {
  std::string key;
  EXPECT_TRUE(Tool::addressKey(address, key)) << address;
  return image.find(Direction::ToPrivate, key);
}

TEST(MaskImage, ARowIsFoundByEachOfItsAddresses) {
  const MaskImage image(sourceOf({{"ann@in.example", "a.lee@out.example"}}));
  EXPECT_EQ(s_public(image, "ann@in.example"), "a.lee@out.example");
  EXPECT_EQ(s_private(image, "a.lee@out.example"), "ann@in.example");
  EXPECT_EQ(s_public(image, "a.lee@out.example"), s_none);
  EXPECT_EQ(s_private(image, "ann@in.example"), s_none);
}

TEST(MaskImage, SpellingsOfAnAddressAreOne) {
  const MaskImage image(sourceOf({{"J\u00f6rg@b\u00fccher.example", "Joe@Out.example"},
                                  {" ann@in.example ", "\"a b\"@out.example"}}));
  EXPECT_EQ(s_public(image, "JO\u0308RG@xn--bcher-kva.example"), "Joe@Out.example");
  EXPECT_EQ(s_private(image, "joe@OUT.example"), "J\u00f6rg@b\u00fccher.example");
  EXPECT_EQ(s_public(image, "ann@in.example"), "\"a b\"@out.example");
  EXPECT_EQ(s_private(image, "A B@out.example"), "ann@in.example");
}

TEST(MaskImage, OfTwoRowsOfOneAddressTheFirstAnswers) {
  const MaskImage image(sourceOf({{"ann@in.example", "one@out.example"},
                                  {"ANN@in.example", "two@out.example"},
                                  {"bob@in.example", "one@out.example"}}));
  EXPECT_EQ(s_public(image, "ann@in.example"), "one@out.example");
  EXPECT_EQ(s_private(image, "one@out.example"), "ann@in.example");
  EXPECT_EQ(s_private(image, "two@out.example"), "ANN@in.example");
}

TEST(MaskImage, AWildcardRowIsOneOfDomains) {
  const MaskImage image(sourceOf({{"*@in.example", "*@out.example"}}));
  EXPECT_EQ(image.findDomain(Direction::ToPublic, "in.example"), "out.example");
  EXPECT_EQ(image.findDomain(Direction::ToPrivate, "out.example"), "in.example");
  EXPECT_EQ(image.findDomain(Direction::ToPublic, "out.example"), s_none);
  EXPECT_EQ(s_public(image, "*@in.example"), s_none);
  EXPECT_EQ(s_private(image, "*@out.example"), s_none);
}

TEST(MaskImage, AnAsteriskOnEitherSideMakesAWildcardRow) {
  const MaskImage image(
      sourceOf({{"ann@in1.example", "*@out1.example"}, {"x*y@in2.example", "bob@out2.example"}}));
  EXPECT_EQ(s_public(image, "ann@in1.example"), s_none);
  EXPECT_EQ(s_private(image, "bob@out2.example"), s_none);
  EXPECT_EQ(image.findDomain(Direction::ToPublic, "in1.example"), "out1.example");
  EXPECT_EQ(image.findDomain(Direction::ToPrivate, "out2.example"), "in2.example");
}

TEST(MaskImage, TowardsPublicAddressesTheLastRowOfADomainCounts) {
  const MaskImage image(sourceOf({{"*@in.example", "*@one.example"},
                                  {"a*@in.example", "*@two.example"},
                                  {"*@In.Example", "*@three.example"}}));
  EXPECT_EQ(image.findDomain(Direction::ToPublic, "in.example"), "three.example");
  // What the last row replaced is not there towards private addresses either.
  EXPECT_EQ(image.findDomain(Direction::ToPrivate, "one.example"), s_none);
  EXPECT_EQ(image.findDomain(Direction::ToPrivate, "two.example"), "in.example");
}

TEST(MaskImage, TowardsPrivateAddressesTheFirstDomainInTheOrderOfBytesCounts) {
  const MaskImage image(sourceOf({{"*@b.example", "*@out.example"},
                                  {"*@a.example", "*@OUT.example"},
                                  {"*@C.example", "*@out.example"}}));
  EXPECT_EQ(image.findDomain(Direction::ToPrivate, "out.example"), "C.example");
}

TEST(MaskImage, DomainsOfWildcardRowsAreFoundInEverySpelling) {
  const MaskImage image(sourceOf({{"*@b\u00fccher.example", "*@Out.example"}}));
  EXPECT_EQ(image.findDomain(Direction::ToPublic, "xn--bcher-kva.example"), "Out.example");
  EXPECT_EQ(image.findDomain(Direction::ToPrivate, "out.example"), "b\u00fccher.example");
}

TEST(MaskImage, RowsThatCannotBeReadAreLeftOutAndBothTheirAddressesAreBroken) {
  const MaskImage image(sourceOf({{"good@in.example", "good@out.example"},
                                  {"a@in.example", "no address"},
                                  {"no address", "b@out.example"},
                                  {"c@in.example", ""},
                                  {"d d@in.example", "d..d@out.example"},
                                  {"*@in2.example", ""},
                                  {"", ""},
                                  {"a@\u3002", "e@out.example"}}));
  EXPECT_EQ(image.rows().size(), 1U);
  EXPECT_EQ(image.brokenRows().count(), 7U);
  EXPECT_EQ(image.brokenRows().first().at(2).why, "the public address is empty");
  EXPECT_EQ(image.brokenRows().first().at(6).why, "nobody can ask for it");
  for (const char* key : {"a@in.example", "c@in.example", "d d@in.example", "*@in2.example"}) {
    EXPECT_TRUE(image.isBroken(Direction::ToPublic, key)) << key;
    EXPECT_FALSE(image.isBroken(Direction::ToPrivate, key)) << key;
  }
  for (const char* key : {"b@out.example", "d..d@out.example"}) {
    EXPECT_TRUE(image.isBroken(Direction::ToPrivate, key)) << key;
    EXPECT_FALSE(image.isBroken(Direction::ToPublic, key)) << key;
  }
  EXPECT_FALSE(image.isBroken(Direction::ToPublic, "good@in.example"));
  EXPECT_FALSE(image.isBroken(Direction::ToPrivate, "good@out.example"));
}

}  // namespace
}  // namespace Tessel::Serve
