// Look-up of one mail user: found, not there in two ways, could not ask.
#include "cmf/MailUserLookup.h"

#include <cstddef>
#include <string>

#include "cmf/ApsGwServerCache.h"
#include "cmf/ConfigurationTest.h"
#include "cmf/Writer.h"
#include "cmf/cmf_query.h"

namespace Tessel::CMF {
namespace {

using testing::HasSubstr;
using State = MailUserAnswer::State;

class MailUserLookupTest : public ConfigurationTest {};

void s_addUser(const std::string& domain, const std::string& user, MailUserKind kind) {
  Writer writer;
  writer.addDomain(domain);
  writer.addUser(domain, user, kind);
  writer.commit();
}

void s_expectFound(const std::string& domain, const std::string& user, MailUserKind kind) {
  const MailUserAnswer answer = findMailUser(domain, user);
  EXPECT_EQ(answer.state, State::Found) << user << " in " << domain;
  EXPECT_EQ(answer.kind, kind) << user << " in " << domain;
}

TEST_F(MailUserLookupTest, AUserIsFoundWithItsKindInAnyLetterCase) {
  s_addUser("Example.com", "Ann", MailUserMailbox);
  s_addUser("example.com", "sales", MailUserShared);
  s_addUser("example.com", "gone", MailUserDisabled);
  s_expectFound("example.com", "ann", MailUserMailbox);
  s_expectFound("EXAMPLE.COM", "ANN", MailUserMailbox);
  s_expectFound("example.com", "Sales", MailUserShared);
  s_expectFound("example.com", "gone", MailUserDisabled);
}

TEST_F(MailUserLookupTest, AnUnknownDomainAndAnUnknownUserAreTwoAnswers) {
  s_addUser("example.com", "ann", MailUserMailbox);
  addDomain("empty.example", {});
  EXPECT_EQ(findMailUser("example.org", "ann").state, State::UnknownDomain);
  EXPECT_EQ(findMailUser("example.com", "bob").state, State::UnknownUser);
  EXPECT_EQ(findMailUser("example.com", "an").state, State::UnknownUser);
  EXPECT_EQ(findMailUser("example.com", "anna").state, State::UnknownUser);
  EXPECT_EQ(findMailUser("empty.example", "ann").state, State::UnknownUser);
}

TEST_F(MailUserLookupTest, UsersOfOtherDomainsDoNotCount) {
  s_addUser("a.example", "ann", MailUserMailbox);
  s_addUser("b.example", "bob", MailUserMailbox);
  EXPECT_EQ(findMailUser("a.example", "bob").state, State::UnknownUser);
  EXPECT_EQ(findMailUser("b.example", "ann").state, State::UnknownUser);
}

TEST_F(MailUserLookupTest, NamesThatCannotBeStoredAreNotThere) {
  const std::string longest(s_maxUserName, 'x');
  s_addUser("example.com", longest, MailUserMailbox);
  s_expectFound("example.com", longest, MailUserMailbox);
  for (const std::string& user :
       {std::string(), longest + "x", std::string(100000, 'x'), std::string("ann\0", 4),
        std::string("\0", 1), std::string("\xff\xfe")}) {
    EXPECT_EQ(findMailUser("example.com", user).state, State::UnknownUser) << user;
  }
  for (const std::string& domain :
       {std::string(), std::string(256, 'x'), std::string(100000, 'x'),
        std::string("example.com\0", 12), std::string("example.com.")}) {
    EXPECT_EQ(findMailUser(domain, longest).state, State::UnknownDomain) << domain;
  }
}

TEST_F(MailUserLookupTest, LettersOutsideAsciiKeepTheirCase) {
  s_addUser("example.com", "jos\u00e9", MailUserMailbox);
  s_expectFound("example.com", "JOS\u00e9", MailUserMailbox);
  EXPECT_EQ(findMailUser("example.com", "JOS\u00c9").state, State::UnknownUser);
}

TEST_F(MailUserLookupTest, EachOfManyUsersIsFound) {
  const std::vector<std::string> users = manyUsers(2000);
  addDomain("example.com", users);
  for (const std::string& user : users) s_expectFound("example.com", user, MailUserMailbox);
  EXPECT_EQ(findMailUser("example.com", "user0002000").state, State::UnknownUser);
}

TEST_F(MailUserLookupTest, EveryLookupSeesTheNewestState) {
  addDomain("example.com", {});
  EXPECT_EQ(findMailUser("example.com", "ann").state, State::UnknownUser);
  s_addUser("example.com", "ann", MailUserMailbox);
  s_expectFound("example.com", "ann", MailUserMailbox);
  s_addUser("example.com", "ann", MailUserDisabled);
  s_expectFound("example.com", "ann", MailUserDisabled);
  {
    Writer writer;
    writer.removeUser("example.com", "ann");
    writer.commit();
  }
  EXPECT_EQ(findMailUser("example.com", "ann").state, State::UnknownUser);
  {
    Writer writer;
    writer.removeDomain("example.com");
    writer.commit();
  }
  EXPECT_EQ(findMailUser("example.com", "ann").state, State::UnknownDomain);
}

TEST_F(MailUserLookupTest, UnderTheReadLockTheLockedStateIsRead) {
  addDomain("example.com", {});
  ASSERT_EQ(cmf_shm_read_lock(), 0);
  s_addUser("example.com", "ann", MailUserMailbox);
  EXPECT_EQ(findMailUser("example.com", "ann").state, State::UnknownUser);
  cmf_shm_read_unlock();
  s_expectFound("example.com", "ann", MailUserMailbox);
}

TEST_F(MailUserLookupTest, AnAbsentConfigurationIsAFailure) {
  EXPECT_THAT(failureOf([] { findMailUser("example.com", "ann"); }), HasSubstr(path()));
  // Even for names that could not be there.
  EXPECT_THAT(failureOf([] { findMailUser("", ""); }), HasSubstr(path()));
}

TEST_F(MailUserLookupTest, AnEmptyConfigurationIsAFailure) {
  { const Writer givenUp; }
  EXPECT_THAT(failureOf([] { findMailUser("example.com", "ann"); }),
              HasSubstr("nothing was stored yet"));
}

TEST_F(MailUserLookupTest, AMalformedUserIsAFailureAndOthersAreFound) {
  const std::uint32_t id = addDomain("example.com", {"ann", "bob"});
  putRaw(path(), text(Key(id, s_mailUserTable, "bob")), std::string(16, 'x'));
  EXPECT_THAT(failureOf([] { findMailUser("example.com", "bob"); }), HasSubstr(path()));
  s_expectFound("example.com", "ann", MailUserMailbox);
}

TEST_F(MailUserLookupTest, ADomainWithoutItsTableOfUsersIsAFailure) {
  ApsGwServerRecord record{};
  std::string("odd.example").copy(record.domain, s_maxDomain);
  record.domainId = 4711;
  addDomain("example.com", {});
  putRaw(path(), text(Key(s_commonGroup, s_domainTable, "odd.example")),
         std::string(reinterpret_cast<const char*>(&record), sizeof(record)));
  EXPECT_EQ(failureOf([] { findMailUser("odd.example", "ann"); }),
            "The configuration in " + path() + " has no mail users of a domain that it has");
}

}  // namespace
}  // namespace Tessel::CMF
