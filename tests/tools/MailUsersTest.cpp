// Domains and mail users in several spellings: how they are found, and joined.
#include "tables/MailUsers.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cmf/Writer.h"
#include "tables/DomainMerge.h"
#include "tests/support/ScratchFile.h"

namespace Tessel::Tool {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Kind = MailUsers::Kind;

constexpr const char* s_small = "b\u00fcro.example";
constexpr const char* s_capital = "B\u00dcRO.example";
constexpr const char* s_ascii = "xn--bro-hoa.example";

class MailUsersTest : public testing::Test {
 protected:
  MailUsersTest() {
    ::setenv("TSL_CMF_PATH", m_scratch.directory().c_str(), 1);
    CMF::Writer writer;
    for (const char* domain : {s_small, s_capital, "d.example"}) writer.addDomain(domain);
    writer.addUser(s_small, "ann", CMF::MailUserMailbox);
    writer.addUser(s_small, "bob", CMF::MailUserDisabled);
    writer.addUser(s_capital, "Ann", CMF::MailUserMailbox);
    writer.addUser(s_capital, "J\u00dcRGEN", CMF::MailUserShared);
    writer.addUser("d.example", "eve", CMF::MailUserMailbox);
    writer.commit();
  }
  ~MailUsersTest() override { ::unsetenv("TSL_CMF_PATH"); }

  static std::vector<std::string> addresses(const std::vector<StoredUser>& users) {
    std::vector<std::string> texts;
    for (const StoredUser& user : users) texts.push_back(user.address());
    return texts;
  }

  static std::vector<std::string> names(const std::vector<StoredDomain>& domains) {
    std::vector<std::string> texts;
    for (const StoredDomain& domain : domains) texts.push_back(domain.name);
    return texts;
  }

  const Testing::ScratchFile m_scratch;
};

TEST_F(MailUsersTest, AreFoundInAnySpelling) {
  MailUsers users;
  EXPECT_EQ(users.kindOf("ANN@xn--bro-hoa.example"), Kind::Mailbox);
  EXPECT_EQ(users.kindOf("bob@bu\u0308ro.example"), Kind::Disabled);
  EXPECT_EQ(users.kindOf("j\u00fcrgen@b\u00fcro.example"), Kind::Other);
  EXPECT_EQ(users.kindOf("eve@b\u00fcro.example"), Kind::Nobody);
  EXPECT_EQ(users.kindOf("eve@buro.example"), Kind::Foreign);
  EXPECT_EQ(users.mailboxes(s_ascii), 1U);
  EXPECT_THAT(users.mailboxesOf(s_ascii), ElementsAre("Ann@xn--bro-hoa.example"));
  EXPECT_THAT(addresses(users.find("ann@xn--bro-hoa.example")),
              ElementsAre("Ann@B\u00dcRO.example", "ann@b\u00fcro.example"));
  EXPECT_THAT(names(users.spellingsOf(s_ascii)), ElementsAre(s_capital, s_small));
  EXPECT_THAT(names(users.spellingsOf("D.example")), ElementsAre("d.example"));
  EXPECT_THAT(users.spellingsOf("example"), IsEmpty());
}

TEST_F(MailUsersTest, OfSpellingsOfOneUserAMailboxCounts) {
  CMF::Writer writer;
  writer.addUser(s_capital, "bob", CMF::MailUserShared);
  writer.commit();
  EXPECT_EQ(MailUsers().kindOf("bob@xn--bro-hoa.example"), Kind::Other);
  CMF::Writer again;
  again.addUser(s_capital, "bob", CMF::MailUserMailbox);
  again.commit();
  EXPECT_EQ(MailUsers().kindOf("bob@xn--bro-hoa.example"), Kind::Mailbox);
}

TEST_F(MailUsersTest, SpellingsOfADomainAreJoinedAsItIsInMail) {
  {
    MailUsers before;
    const DomainMerge merge(s_capital, before);
    EXPECT_EQ(merge.name(), s_ascii);
    EXPECT_THAT(merge.gone(), ElementsAre(s_capital, s_small));
    EXPECT_EQ(merge.users(), 3U);
    merge.write();
  }
  MailUsers users;
  EXPECT_THAT(names(users.spellingsOf(s_small)), ElementsAre(s_ascii));
  EXPECT_THAT(addresses(users.find("ann@b\u00fcro.example")),
              ElementsAre("Ann@xn--bro-hoa.example"));
  EXPECT_EQ(users.kindOf("bob@b\u00fcro.example"), Kind::Disabled);
  EXPECT_EQ(users.kindOf("j\u00fcrgen@b\u00fcro.example"), Kind::Other);
  EXPECT_EQ(users.kindOf("eve@d.example"), Kind::Mailbox);
  EXPECT_THAT(DomainMerge(s_small, users).gone(), IsEmpty());
}

TEST_F(MailUsersTest, AUserOfTwoKindsIsNotJoined) {
  CMF::Writer writer;
  writer.addUser(s_capital, "bob", CMF::MailUserMailbox);
  writer.commit();
  MailUsers users;
  try {
    const DomainMerge merge(s_small, users);
    FAIL();
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.code(), ExitCode::BadData);
    EXPECT_EQ(failure.subject(), "mail user bob@B\u00dcRO.example");
    EXPECT_THAT(failure.why(),
                HasSubstr("kind user, and bob@b\u00fcro.example of the kind disabled"));
  }
}

TEST_F(MailUsersTest, WithoutAConfigurationNothingIsKnown) {
  ::setenv("TSL_CMF_PATH", "/nonexistent", 1);
  MailUsers users;
  EXPECT_EQ(users.kindOf("ann@b\u00fcro.example"), Kind::Unknown);
  EXPECT_EQ(users.mailboxes("d.example"), std::nullopt);
  EXPECT_THROW(users.require(), Failure);
}

}  // namespace
}  // namespace Tessel::Tool
