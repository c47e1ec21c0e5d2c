// Tests of addresses and domains that attack SQL text, through every operation of an alias table.
// Names are escaped and come back as they were; members and domains are not escaped when they are
// written, and what becomes of them is pinned.
#include <ostream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "alias/AliasTable.h"
#include "support/Caught.h"

namespace Tessel {
namespace {

using Testing::caught;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::Pair;

constexpr int s_syntaxError = 1064;

// An address, and what becomes of it as a member.
struct HostileAddress {
  const char* name;
  const char* text;      // As the parser takes it.
  const char* added;     // Text that queryAdd leaves in `members`.
  int addError;          // Error number of queryAdd with it as a member, 0 for none.
  bool isFoundByMember;  // Whether queryFindByMemberUser finds the alias that has it.
};

void PrintTo(const HostileAddress& address, std::ostream* stream) {
  *stream << address.name;
}

const HostileAddress s_addresses[] = {
    {"Percent", "50%@d.example", "50%@d.example", 0, true},
    {"Underscore", "a_b@d.example", "a_b@d.example", 0, true},
    {"Semicolon", R"("a;b"@d.example)", R"("a;b"@d.example)", 0, true},
    {"Comma", R"("a,b"@d.example)", R"("a,b"@d.example)", 0, true},
    {"Comment", R"("a -- b"@d.example)", R"("a -- b"@d.example)", 0, true},
    {"Literal", "a@[IPv6:::1]", "a@[IPv6:::1]", 0, true},
    {"Apostrophe", "o'brien@d.example", "", s_syntaxError, true},
    {"TwoApostrophes", "o''brien@d.example", "o'brien@d.example", 0, true},
    // Backslashes are read by the server as escapes and do not reach the column; those that do are
    // read once more by "like".
    {"Quote", R"("a\"b"@d.example)", R"("a"b"@d.example)", 0, false},
    {"Backslash", R"("a\\b"@d.example)", R"("a\b"@d.example)", 0, false},
    {"BackslashAtTheEnd", R"("a\\"@d.example)", R"("a\"@d.example)", 0, false},
    {"Statement", R"("'; drop table alias; -- "@d.example)", "", s_syntaxError, true},
};

class AddressAliasHostileAddress : public Testing::AliasTable,
                                   public testing::WithParamInterface<HostileAddress> {
 protected:
  // One database for all of them: each begins with nothing but the bystander.
  static void SetUpTestSuite() { prepare(); }
  void SetUp() override {
    sql("delete from ts_address_map.alias");
    openTable();
    addAlias("bystander@x.example", "member@x.example");
  }

  [[nodiscard]] static EmailAddress hostile() { return address(GetParam().text); }

  // Adds an alias with `member` as it is.
  static void addExactly(const EmailAddress& alias, const EmailAddress& member) {
    addAlias(emailAddressEscapedWrite(alias), emailAddressEscapedWrite(member));
  }

  // Expects these aliases and members as well as the bystander.
  static void expectRows(Rows want) {
    want.push_back({"bystander@x.example", "member@x.example"});
    EXPECT_THAT(sql("select name, members from ts_address_map.alias"),
                testing::UnorderedElementsAreArray(want));
  }

  const EmailAddress m_other = address("other@e.example");
};

TEST_P(AddressAliasHostileAddress, RoundTripsAsAnAlias) {
  m_table->queryAdd(hostile(), {m_other});
  expectRows({{hostile().address(), m_other.address()}});
  std::set<EmailAddress> members;
  m_table->queryFindMembers(hostile(), members);
  EXPECT_THAT(members, ElementsAre(m_other));
  std::set<EmailAddress> names;
  m_table->getAliasNames(names);
  EXPECT_THAT(names, Contains(hostile()));
  m_table->queryAdd(hostile(), {address("new@e.example")});
  expectRows({{hostile().address(), "new@e.example"}});
  m_table->queryDelete(hostile());
  expectRows({});
}

TEST_P(AddressAliasHostileAddress, IsNotFoundWhenItIsNotThere) {
  std::set<EmailAddress> members;
  AddressAliasDbMySQL::Entries entries;
  m_table->queryFindMembers(hostile(), members);
  m_table->queryFindByMemberUser(hostile(), entries);
  m_table->queryDelete(hostile());
  EXPECT_THAT(members, IsEmpty());
  EXPECT_THAT(entries, IsEmpty());
  expectRows({});
}

TEST_P(AddressAliasHostileAddress, IsExpandedAsAliasAndAsMember) {
  addExactly(address("list@e.example"), hostile());
  addExactly(hostile(), m_other);
  const AddressAliasDbMySQL table(*m_store, true, "");
  EXPECT_THAT(table.expandAlias(hostile()), ElementsAre(m_other));
  EXPECT_THAT(table.expandAlias(address("list@e.example")), ElementsAre(m_other));
}

TEST_P(AddressAliasHostileAddress, IsListedUnderItsDomainAndDeletedWithIt) {
  addExactly(hostile(), m_other);
  AddressAliasDbMySQL::Entries entries;
  m_table->queryFindByDomain(hostile().domain(), entries);
  EXPECT_THAT(entries, ElementsAre(Pair(hostile(), ElementsAre(m_other))));
  m_table->queryDelete(hostile().domain());
  expectRows({});
}

TEST_P(AddressAliasHostileAddress, IsSearchedAsAPatternAmongMembers) {
  addExactly(m_other, hostile());
  AddressAliasDbMySQL::Entries entries;
  m_table->queryFindByMemberUser(hostile(), entries);
  EXPECT_EQ(entries.size(), GetParam().isFoundByMember ? 1U : 0U);
}

TEST_P(AddressAliasHostileAddress, IsAddedUnescapedAsAMember) {
  const auto add = [this] { m_table->queryAdd(m_other, {hostile()}); };
  if (GetParam().addError != 0) {
    EXPECT_EQ(caught(add).code(), GetParam().addError);
    return expectRows({});
  }
  add();
  expectRows({{m_other.address(), GetParam().added}});
}

INSTANTIATE_TEST_SUITE_P(Texts, AddressAliasHostileAddress, testing::ValuesIn(s_addresses),
                         [](const auto& tested) { return std::string(tested.param.name); });

class AddressAliasHostileText : public Testing::AliasTable {
 protected:
  void SetUp() override {
    AliasTable::SetUp();
    addAlias("a@abc.example", "m@y.example");
    addAlias("a@a_c.example", "m_m@y.example");
    addAlias("a@axc.example", "mxm@y.example");
  }

  [[nodiscard]] std::size_t listed(const std::string& domain) const {
    AddressAliasDbMySQL::Entries entries;
    m_table->queryFindByDomain(domain, entries);
    return entries.size();
  }

  [[nodiscard]] AddressAliasDbMySQL::Entries foundByMember(const std::string& member) const {
    AddressAliasDbMySQL::Entries entries;
    m_table->queryFindByMemberUser(address(member), entries);
    return entries;
  }
};

TEST_F(AddressAliasHostileText, TextAfterANulNeverReachesTheServer) {
  const EmailAddress cut = address(std::string("n@d.example\0' or '1'='1", 23));
  m_table->queryAdd(cut, {cut});
  EXPECT_THAT(rows(), Contains(ElementsAre("n@d.example", "n@d.example", "0")));
  m_table->queryDelete(cut);
  EXPECT_EQ(rows().size(), 3U);
}

TEST_F(AddressAliasHostileText, AChosenMemberEmptiesAnotherAlias) {
  m_table->queryAdd(
      address("new@d.example"),
      {address(R"("'),('a@abc.example','')on duplicate key update members=''-- "@d.example)")});
  EXPECT_THAT(rows(), Contains(ElementsAre("a@abc.example", "", "0")));
}

TEST_F(AddressAliasHostileText, AMemberWhoseQuoteLostItsBackslashFailsEveryReading) {
  m_table->queryAdd(address("new@d.example"), {address(R"("a\"b"@d.example)")});
  EXPECT_EQ(caught([this] { AddressAliasDbMySQL(*m_store, true, ""); }).context(),
            "EmailAddress::rfc5322ParseSet");
  EXPECT_EQ(caught([this] { static_cast<void>(listed("*")); }).context(),
            "EmailAddress::rfc5322ParseSet");
}

TEST_F(AddressAliasHostileText, PatternCharactersInAMemberMatchAnything) {
  EXPECT_THAT(foundByMember("m_m@y.example"),
              ElementsAre(Key(address("a@a_c.example")), Key(address("a@axc.example"))));
  EXPECT_EQ(foundByMember("m%@y.example").size(), 3U);
}

TEST_F(AddressAliasHostileText, PatternCharactersInADomainMatchAnything) {
  EXPECT_EQ(listed("a_c.example"), 3U);
  EXPECT_EQ(listed("a%"), 3U);
  EXPECT_EQ(listed(R"(a\_c.example)"), 1U);
  m_table->queryDelete("a_c.example");
  EXPECT_EQ(rows().size(), 0U);
}

TEST_F(AddressAliasHostileText, AQuoteInADomainBreaksTheStatement) {
  EXPECT_EQ(caught([this] { static_cast<void>(listed("d'e")); }).code(), s_syntaxError);
  EXPECT_EQ(caught([this] { m_table->queryDelete("d'e"); }).code(), s_syntaxError);
  EXPECT_EQ(caught([this] { m_table->queryDelete("'; drop table alias; -- "); }).code(),
            s_syntaxError);
  EXPECT_EQ(rows().size(), 3U);
}

TEST_F(AddressAliasHostileText, ANulInADomainCutsTheStatement) {
  const std::string domain("abc.example\0", 12);
  EXPECT_EQ(caught([&] { static_cast<void>(listed(domain)); }).code(), s_syntaxError);
  EXPECT_EQ(caught([&] { m_table->queryDelete(domain); }).code(), s_syntaxError);
  EXPECT_EQ(rows().size(), 3U);
}

TEST_F(AddressAliasHostileText, AChosenDomainListsAndDeletesEveryAlias) {
  EXPECT_EQ(listed("x' or '1'='1"), 3U);
  m_table->queryDelete("x' or '1'='1");
  EXPECT_EQ(rows().size(), 0U);
}

}  // namespace
}  // namespace Tessel
