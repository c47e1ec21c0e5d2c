// Tests of the reader of rows.
#include <string>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tables/RowReader.h"

namespace Tessel::Tool {
namespace {

using namespace std::string_view_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

TEST(RowReader, PlainTextsAreReadAsTheyStand) {
  RowReader reader(TableKind::Alias);
  EXPECT_EQ(reader.read("Team@d.example", "b@d.example,a@d.example,B@d.example"), RowFault::None);
  EXPECT_EQ(reader.key(), "Team@d.example");
  EXPECT_EQ(reader.keyAddress(), EmailAddress::rfc5321Parse("team@d.example", false));
  EXPECT_THAT(reader.values(), ElementsAre("b@d.example", "a@d.example", "B@d.example"));
  EXPECT_EQ(joined(reader.valueAddresses()), "a@d.example,b@d.example");
  EXPECT_EQ(joined(reader.valueAddresses()), "a@d.example,b@d.example");
}

TEST(RowReader, OtherTextsAreReadAsTheLibraryReadsThem) {
  RowReader reader(TableKind::Alias);
  EXPECT_EQ(
      reader.read(" team@d.example ", "The Boss <b@d.example>, \"a b\"@d.example, allusers_d"),
      RowFault::None);
  EXPECT_EQ(reader.key(), "team@d.example");
  EXPECT_THAT(reader.values(), ElementsAre("\"a b\"@d.example", "allusers_d", "b@d.example"));
  EXPECT_EQ(joined(reader.valueAddresses()), "\"a b\"@d.example,allusers_d,b@d.example");
}

TEST(RowReader, AValueThatIsWrittenAlreadyStaysAsItIs) {
  RowReader reader(TableKind::Alias);
  for (const char* const text :
       {"a@d.example", "a@d.example,b@d.example", "a@d.example,allusers_d"}) {
    EXPECT_EQ(reader.readValue(text), RowFault::None);
    EXPECT_EQ(joined(reader.valueAddresses()), text);
  }
}

TEST(RowReader, APublicAddressIsOneAddress) {
  RowReader reader(TableKind::Mask);
  EXPECT_EQ(reader.read("a@in.example", "a@out.example"), RowFault::None);
  EXPECT_THAT(reader.values(), ElementsAre("a@out.example"));
  EXPECT_EQ(reader.read("*@in.example", "\"a b\"@out.example"), RowFault::None);
  EXPECT_THAT(reader.values(), ElementsAre("\"a b\"@out.example"));
  EXPECT_EQ(reader.read("a@in.example", "a@out.example,b@out.example"), RowFault::BadValue);
  EXPECT_THAT(reader.why(), StartsWith("bad public address: "));
  EXPECT_THAT(reader.values(), IsEmpty());
}

struct Case {
  TableKind kind;
  RowFault fault;
  std::string_view key;
  std::string_view value;
  const char* why;
};

TEST(RowReader, EachFaultHasItsTypeAndItsWords) {
  constexpr auto alias = TableKind::Alias;
  constexpr auto mask = TableKind::Mask;
  const Case cases[] = {
      {alias, RowFault::BadKey, "no address", "a@d", "bad alias: "},
      {alias, RowFault::BadKey, "allusers_d", "a@d", "bad alias: "},
      {alias, RowFault::EmptyKey, " ", "a@d", "the alias is empty"},
      {alias, RowFault::BadValue, "a@d", "b@", "bad members: "},
      {alias, RowFault::EmptyValue, "a@d", "", "the members are empty"},
      {alias, RowFault::EmptyValue, "a@d", " , ", "the members are empty"},
      {mask, RowFault::BadKey, "no address", "a@d", "bad private address: "},
      {mask, RowFault::EmptyKey, "", "a@d", "the private address is empty"},
      {mask, RowFault::BadValue, "a@d", "allusers_d", "bad public address: "},
      {mask, RowFault::EmptyValue, "a@d", "", "the public address is empty"},
      // What makes every reader of the whole table fail goes first.
      {mask, RowFault::BadKey, "no address", "b@", "bad private address: "},
      {mask, RowFault::BadValue, "", "b@", "bad public address: "},
      {mask, RowFault::EmptyKey, "", "", "the private address is empty"},
  };
  for (const Case& one : cases) {
    RowReader reader(one.kind);
    EXPECT_EQ(reader.read(one.key, one.value), one.fault) << one.key << ":" << one.value;
    EXPECT_THAT(reader.why(), StartsWith(one.why)) << one.key << ":" << one.value;
  }
}

TEST(RowReader, ANulHidesNothing) {
  RowReader reader(TableKind::Alias);
  EXPECT_EQ(reader.read("a@d\0,x"sv, "b@d"), RowFault::BadKey);
  EXPECT_EQ(reader.why(), "bad alias: it contains a NUL character");
  EXPECT_EQ(reader.read("a@d", "b@d\0,c@d"sv), RowFault::BadValue);
  EXPECT_EQ(reader.why(), "bad members: it contains a NUL character");
}

TEST(RowReader, NothingStaysOfTheRowBefore) {
  RowReader reader(TableKind::Alias);
  ASSERT_EQ(reader.read("a@d", "b@d"), RowFault::None);
  EXPECT_EQ(reader.read("no address", "b@"), RowFault::BadKey);
  EXPECT_THAT(reader.key(), IsEmpty());
  EXPECT_THAT(reader.values(), IsEmpty());
  EXPECT_EQ(reader.read("a@d", "b@d"), RowFault::None);
}

}  // namespace
}  // namespace Tessel::Tool
