// Tests of addresses and domains that attack SQL text, through every operation of a mask table:
// reading escapes them; writing does not, and what becomes of it is pinned.
#include <ostream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mask/MaskTable.h"
#include "support/Caught.h"

namespace Tessel {
namespace {

using Testing::caught;
using testing::Contains;
using testing::ElementsAre;
using testing::Pair;

constexpr int s_syntaxError = 1064;

// An address, and what writing its text unescaped does.
struct HostileAddress {
  const char* name;
  const char* text;   // As the parser takes it.
  const char* added;  // Text that queryAdd with it leaves in its column.
  int addError;       // Error number of queryAdd with it, 0 for none.
  bool isDeleted;     // Whether queryDelete of the pair deletes the row that holds it.
};

void PrintTo(const HostileAddress& address, std::ostream* stream) {
  *stream << address.name;
}

const HostileAddress s_addresses[] = {
    {"Percent", "50%@d.example", "50%@d.example", 0, true},
    {"Underscore", "a_b@d.example", "a_b@d.example", 0, true},
    {"Semicolon", R"("a;b"@d.example)", R"("a;b"@d.example)", 0, true},
    {"Comment", R"("a -- b"@d.example)", R"("a -- b"@d.example)", 0, true},
    {"Literal", "a@[IPv6:::1]", "a@[IPv6:::1]", 0, true},
    {"Apostrophe", "o'brien@d.example", "", s_syntaxError, false},
    {"TwoApostrophes", "o''brien@d.example", "o'brien@d.example", 0, false},
    // Backslashes are read by the server as escapes and do not reach the column.
    {"Quote", R"("a\"b"@d.example)", R"("a"b"@d.example)", 0, false},
    {"Backslash", R"("a\\b"@d.example)", R"("a\b"@d.example)", 0, false},
    {"BackslashAtTheEnd", R"("a\\"@d.example)", R"("a\"@d.example)", 0, false},
    {"Statement", R"("'; drop table mask; -- "@d.example)", "", s_syntaxError, false},
};

class AddressMaskHostileAddress : public Testing::MaskTable,
                                  public testing::WithParamInterface<HostileAddress> {
 protected:
  // One database for all of them: each begins with nothing but the bystander.
  static void SetUpTestSuite() { prepare(); }
  void SetUp() override {
    sql("delete from ts_address_map.mask");
    openStore();
    addMask("bystander@x.example", "bystander@y.example");
    m_table = open(false);
  }

  [[nodiscard]] static EmailAddress hostile() { return address(GetParam().text); }

  // Adds a row with the texts as they are.
  static void addExactly(const EmailAddress& privateAddress, const EmailAddress& publicAddress) {
    addMask(emailAddressEscapedWrite(privateAddress), emailAddressEscapedWrite(publicAddress));
  }

  static Rows withBystander(const Rows& others) {
    Rows all{{"bystander@x.example", "bystander@y.example"}};
    all.insert(all.end(), others.begin(), others.end());
    return all;
  }

  // All rows, in an order of their own.
  static void expectRows(const Rows& want) {
    EXPECT_THAT(rows(), testing::UnorderedElementsAreArray(withBystander(want)));
  }

  const EmailAddress m_other = address("other@e.example");
  std::unique_ptr<AddressMaskDbMySQL> m_table;
};

TEST_P(AddressMaskHostileAddress, IsFoundByItsExactTextInBothColumns) {
  addExactly(hostile(), m_other);
  EXPECT_EQ(m_table->queryPublicAddress(hostile()), m_other);
  EXPECT_EQ(m_table->queryPrivateAddress(m_other), hostile());
  sql("delete from ts_address_map.mask where public='other@e.example'");
  addExactly(m_other, hostile());
  EXPECT_EQ(m_table->queryPublicAddress(m_other), hostile());
  EXPECT_EQ(m_table->queryPrivateAddress(hostile()), m_other);
}

TEST_P(AddressMaskHostileAddress, IsNotFoundWhenItIsNotThere) {
  EXPECT_TRUE(m_table->queryPublicAddress(hostile()).isNull());
  EXPECT_TRUE(m_table->queryPrivateAddress(hostile()).isNull());
}

TEST_P(AddressMaskHostileAddress, IsAnsweredFromCacheAndTableAlike) {
  addExactly(hostile(), m_other);
  const auto preloaded = open(true);
  EXPECT_EQ(preloaded->findPublicAddress(hostile()), m_other);
  EXPECT_EQ(preloaded->findPrivateAddress(m_other), hostile());
  for (const bool forward : {true, false}) {
    const auto asking = open(false);
    asking->exportToFile("/dev/null");
    if (forward) {
      EXPECT_EQ(asking->findPublicAddress(hostile()), m_other);
    } else {
      EXPECT_EQ(asking->findPrivateAddress(m_other), hostile());
    }
  }
}

TEST_P(AddressMaskHostileAddress, IsListed) {
  addExactly(hostile(), m_other);
  std::map<EmailAddress, EmailAddress> entries;
  m_table->findByMaskedDomain("*", entries);
  EXPECT_THAT(entries, Contains(Pair(hostile(), m_other)));
  entries.clear();
  m_table->findByMaskedDomain(hostile().domain(), entries);
  EXPECT_THAT(entries, ElementsAre(Pair(hostile(), m_other)));
}

TEST_P(AddressMaskHostileAddress, IsAddedUnescapedAsThePrivateOne) {
  const auto add = [this] { m_table->queryAdd(hostile(), m_other); };
  if (GetParam().addError != 0) {
    EXPECT_EQ(caught(add).code(), GetParam().addError);
    return expectRows({});
  }
  add();
  expectRows({{GetParam().added, m_other.address()}});
}

TEST_P(AddressMaskHostileAddress, IsAddedUnescapedAsThePublicOne) {
  const auto add = [this] { m_table->queryAdd(m_other, hostile()); };
  if (GetParam().addError != 0) {
    EXPECT_EQ(caught(add).code(), GetParam().addError);
    return expectRows({});
  }
  add();
  expectRows({{m_other.address(), GetParam().added}});
}

TEST_P(AddressMaskHostileAddress, IsDeletedUnescaped) {
  addExactly(hostile(), m_other);
  const auto remove = [this] { m_table->queryDelete(hostile(), m_other); };
  if (GetParam().addError != 0) {
    EXPECT_EQ(caught(remove).code(), GetParam().addError);
  } else {
    remove();
  }
  expectRows(GetParam().isDeleted ? Rows{} : Rows{{hostile().address(), m_other.address()}});
}

TEST_P(AddressMaskHostileAddress, GoesWithItsDomainAndNothingElseDoes) {
  addExactly(hostile(), m_other);
  m_table->queryDelete(hostile().domain());
  expectRows({});
}

INSTANTIATE_TEST_SUITE_P(Texts, AddressMaskHostileAddress, testing::ValuesIn(s_addresses),
                         [](const auto& tested) { return std::string(tested.param.name); });

class AddressMaskHostileText : public Testing::MaskTable {
 protected:
  void SetUp() override {
    MaskTable::SetUp();
    addMask("a@abc.example", "1@y.example");
    addMask("a@a_c.example", "2@y.example");
    addMask("a@axc.example", "3@y.example");
    m_table = open(false);
  }

  [[nodiscard]] std::size_t listed(const std::string& domain) const {
    std::map<EmailAddress, EmailAddress> entries;
    m_table->findByMaskedDomain(domain, entries);
    return entries.size();
  }

  std::unique_ptr<AddressMaskDbMySQL> m_table;
};

TEST_F(AddressMaskHostileText, TextAfterANulNeverReachesTheServer) {
  const EmailAddress cut = address(std::string("n@d.example\0' or '1'='1", 23));
  m_table->queryAdd(cut, address("q@e.example"));
  EXPECT_THAT(rows(), Contains(ElementsAre("n@d.example", "q@e.example")));
  m_table->queryDelete(cut, address("q@e.example"));
  EXPECT_EQ(rows().size(), 3U);
}

TEST_F(AddressMaskHostileText, AChosenAddressDeletesEveryRow) {
  m_table->queryDelete(address(R"("' or 1=1 -- "@d.example)"), address("q@e.example"));
  EXPECT_EQ(rows().size(), 0U);
}

TEST_F(AddressMaskHostileText, AChosenAddressAddsTheRowOfAnother) {
  m_table->queryAdd(address(R"("x\"@y.example','stolen@e.example') -- "@d.example)"),
                    address("q@e.example"));
  EXPECT_THAT(rows(), Contains(ElementsAre(R"("x"@y.example)", "stolen@e.example")));
}

TEST_F(AddressMaskHostileText, ARowWhoseQuoteLostItsBackslashFailsEveryReading) {
  m_table->queryAdd(address(R"("a\"b"@d.example)"), address("q@e.example"));
  EXPECT_EQ(caught([this] { open(true); }).context(), "queryEntries ");
  EXPECT_EQ(caught([this] { static_cast<void>(listed("*")); }).context(),
            "EmailAddress::rfc5321Parse");
}

TEST_F(AddressMaskHostileText, ABackslashThatGotLostMakesItAnotherAddress) {
  m_table->queryAdd(address(R"("a\\b"@d.example)"), address("q@e.example"));
  EXPECT_TRUE(m_table->queryPublicAddress(address(R"("a\\b"@d.example)")).isNull());
  EXPECT_EQ(m_table->queryPrivateAddress(address("q@e.example")).address(), "ab@d.example");
}

TEST_F(AddressMaskHostileText, PatternCharactersInADomainMatchAnything) {
  EXPECT_EQ(listed("a_c.example"), 3U);
  EXPECT_EQ(listed("a%"), 3U);
  EXPECT_EQ(listed(R"(a\_c.example)"), 1U);
  m_table->queryDelete("a_c.example");
  EXPECT_EQ(rows().size(), 0U);
}

TEST_F(AddressMaskHostileText, AQuoteInADomainBreaksTheStatement) {
  EXPECT_EQ(caught([this] { static_cast<void>(listed("d'e")); }).code(), s_syntaxError);
  EXPECT_EQ(caught([this] { m_table->queryDelete("d'e"); }).code(), s_syntaxError);
  EXPECT_EQ(caught([this] { m_table->queryDelete("'; drop table mask; -- "); }).code(),
            s_syntaxError);
  EXPECT_EQ(rows().size(), 3U);
}

TEST_F(AddressMaskHostileText, ANulInADomainCutsTheStatement) {
  const std::string domain("abc.example\0", 12);
  EXPECT_EQ(caught([&] { static_cast<void>(listed(domain)); }).code(), s_syntaxError);
  EXPECT_EQ(caught([&] { m_table->queryDelete(domain); }).code(), s_syntaxError);
  EXPECT_EQ(rows().size(), 3U);
}

TEST_F(AddressMaskHostileText, AChosenDomainListsAndDeletesEveryRow) {
  EXPECT_EQ(listed("x' or '1'='1"), 3U);
  m_table->queryDelete("x' or '1'='1");
  EXPECT_EQ(rows().size(), 0U);
}

TEST_F(AddressMaskHostileText, ADomainOfAnotherLetterCaseIsTheSame) {
  EXPECT_EQ(listed("ABC.example"), 1U);
  m_table->queryDelete("ABC.example");
  EXPECT_EQ(rows().size(), 2U);
}

}  // namespace
}  // namespace Tessel
