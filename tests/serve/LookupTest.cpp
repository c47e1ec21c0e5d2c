// Replies to the requests of mail servers, from tables in memory. What must never happen: "not
// found" for what is not known, an empty "OK", and somebody else's address.
#include "serve/answer/Lookup.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;

class LookupTest : public testing::Test {
 protected:
  // The reply to `request`, after the settings of the test.
  std::string ask(std::string_view request) { return *lookup().reply(request); }

  Lookup& lookup() {
    if (m_lookup == nullptr) {
      m_lookup = std::make_unique<Lookup>(m_settings, tables(), m_metrics, m_log);
    }
    return *m_lookup;
  }

  Tables& tables() {
    if (!m_tables) m_tables.emplace(m_settings);
    return *m_tables;
  }

  // Has the table `sqlName` answer with `rows`.
  void serve(const std::string& sqlName, const Rows& rows, Clock::time_point time = Clock::now()) {
    publishRows(*tables().add(sqlName), rows, time);
  }

  // Has the configuration be that of ServedDomains, known to be right at `time`.
  void serveDomains(Clock::time_point time = Clock::now()) {
    tables().configuration().publish(ServedDomains().image(), time);
  }

  // How often an answer was taken from the cache.
  std::string hits() { return metric("cache_hits_total"); }

  // The value of a metric without labels.
  std::string metric(const std::string& name) {
    const std::string start = "tsl_address_map_" + name + " ";
    std::istringstream lines(metricsText(m_metrics, tables(), Clock::now()));
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with(start)) return line.substr(start.size());
    }
    return "none";
  }

  Settings m_settings;
  std::optional<Tables> m_tables;
  Metrics m_metrics;
  Log m_log{LogLevel::Error};
  std::unique_ptr<Lookup> m_lookup;
};

// The addresses of an OK reply.
std::vector<std::string> s_list(const std::string& reply) {
  EXPECT_THAT(reply, StartsWith("OK "));
  std::vector<std::string> addresses;
  std::istringstream stream(reply.substr(3));
  for (std::string address; std::getline(stream, address, ',');) addresses.push_back(address);
  EXPECT_FALSE(addresses.empty());
  return addresses;
}

// `count` addresses as the members of a row.
std::string s_members(int count, const std::string& start = "user") {
  std::string members;
  for (int i = 0; i < count; ++i) {
    members += (i == 0 ? "" : ",") + start + std::to_string(1000000 + i) + "@d.example";
  }
  return members;
}

TEST_F(LookupTest, EachMapAnswersFromItsTable) {
  serve("alias", {{"team@d.example", "b@d.example,a@d.example"}});
  serve("alias_second", {{"team@d.example", "c@d.example"}});
  serve("mask", {{"ann@in.example", "a.lee@out.example"}});
  serve("mask_second", {{"ann@in.example", "second@out.example"}});
  EXPECT_EQ(ask("alias team@d.example"), "OK a@d.example,b@d.example");
  EXPECT_EQ(ask("alias:second TEAM@d.example"), "OK c@d.example");
  EXPECT_EQ(ask("mask_public ann@in.example"), "OK a.lee@out.example");
  EXPECT_EQ(ask("mask_private a.lee@out.example"), "OK ann@in.example");
  EXPECT_EQ(ask("mask_public:second ann@in.example"), "OK second@out.example");
  EXPECT_EQ(ask("mask_private:second second@out.example"), "OK ann@in.example");
  EXPECT_EQ(ask("alias nobody@d.example"), "NOTFOUND ");
  EXPECT_EQ(ask("mask_public a.lee@out.example"), "NOTFOUND ");
  EXPECT_EQ(ask("mask_private ann@in.example"), "NOTFOUND ");
}

TEST_F(LookupTest, WhatIsNoRequestOrAsksForNoMapIsRefusedForGood) {
  serve("alias", {});
  for (const char* request : {"", "alias", "alias\tteam@d.example"}) {
    EXPECT_EQ(ask(request), "PERM a request is MAP, blank, KEY") << request;
  }
  for (const char* request :
       {"nomap a@d.example", " a@d.example", "ALIAS a@d.example", "aliases a@d.example",
        "mailbox:second a@d.example", "domain: d.example"}) {
    EXPECT_EQ(ask(request), "PERM there is no such map") << request;
  }
  EXPECT_EQ(ask("alias "), "NOTFOUND ");
}

TEST_F(LookupTest, ATableThatIsNotServedIsATemporaryFailure) {
  serve("alias", {});
  EXPECT_EQ(ask("alias:other a@d.example"), "TEMP the table could not be read yet");
  tables().setNames({"alias"});
  for (const char* request :
       {"alias:other a@d.example", "mask_public a@d.example", "mask_private:x a@d.example",
        "alias:`; drop a@d.example", "alias:second:third a@d.example"}) {
    EXPECT_EQ(ask(request), "TEMP there is no such table") << request;
  }
  EXPECT_THAT(tables().unknown(Clock::now()), ElementsAre("alias_other", "mask", "mask_x"));
  // It may come later.
  serve("alias_other", {{"a@d.example", "b@d.example"}});
  EXPECT_EQ(ask("alias:other a@d.example"), "OK b@d.example");
}

TEST_F(LookupTest, DisabledUsersAreLeftOutOfAliasesOnlyWhenThatIsWanted) {
  const Rows rows = {{"team@d.example", "bob@d.example,gone@d.example,x@out.example"},
                     {"list@d.example", "Gone+tag@d.example,team@d.example"},
                     {"left@d.example", "gone@d.example"},
                     {"names@d.example", "gone@d.example,root"}};
  serve("alias", rows);
  serveDomains();
  EXPECT_EQ(ask("alias team@d.example"), "OK bob@d.example,gone@d.example,x@out.example");
  EXPECT_EQ(ask("alias left@d.example"), "OK gone@d.example");
  m_lookup.reset();
  m_settings.leaveOutDisabled = true;
  EXPECT_EQ(ask("alias team@d.example"), "OK bob@d.example,x@out.example");
  EXPECT_EQ(ask("alias list@d.example"), "OK bob@d.example,x@out.example");
  // "Not found" would let the mail server deliver to a mailbox of that name.
  EXPECT_EQ(ask("alias left@d.example"), "PERM this alias reaches nobody");
  EXPECT_EQ(ask("alias names@d.example"), "TEMP this alias has members without a domain only");
}

TEST_F(LookupTest, ADisabledUserWhoseMailAnAliasForwardsIsNotLeftOut) {
  m_settings.leaveOutDisabled = true;
  serve("alias", {{"gone@d.example", "bob@d.example,gone@d.example"},
                  {"team@d.example", "gone@d.example,x@out.example"}});
  serve("alias_second", {{"list@d.example", "gone@d.example"}});
  serve("mask", {{"gone@d.example", "public@d.example"}});
  serveDomains();
  EXPECT_EQ(ask("alias gone@d.example"), "OK bob@d.example");
  EXPECT_EQ(ask("alias team@d.example"), "OK bob@d.example,x@out.example");
  EXPECT_EQ(ask("alias.second list@d.example"), "OK gone@d.example");
  EXPECT_EQ(ask("mask_private public@d.example"), "OK gone@d.example");
  // The answers do not outlive the alias.
  serve("alias", {});
  EXPECT_EQ(ask("mask_private public@d.example"), "NOTFOUND ");
}

TEST_F(LookupTest, DisabledUsersAreLeftOutOfMasksOnTheWayInOnly) {
  m_settings.leaveOutDisabled = true;
  serve("alias", {});
  serve("mask", {{"gone@d.example", "public@out.example"},
                 {"bob@d.example", "bobby@out.example"},
                 {"*@d.example", "*@wide.example"}});
  serveDomains();
  EXPECT_EQ(ask("mask_private public@out.example"), "NOTFOUND ");
  EXPECT_EQ(ask("mask_private public+tag@out.example"), "NOTFOUND ");
  EXPECT_EQ(ask("mask_private gone@wide.example"), "NOTFOUND ");
  EXPECT_EQ(ask("mask_private bobby@out.example"), "OK bob@d.example");
  // Nobody is shown without his mask because he is disabled.
  EXPECT_EQ(ask("mask_public gone@d.example"), "OK public@out.example");
}

TEST_F(LookupTest, ACatchAllHasTheNamesThatNobodyHas) {
  m_settings.catchAll = true;
  serve("alias", {{"*@d.example", "box@x.example"}, {"team@d.example", "a@x.example"}});
  serve("mask", {{"p@in.example", "shown@d.example"}});
  EXPECT_EQ(ask("alias nobody@d.example"),
            "TEMP the configuration of domains and mail users cannot be read");
  serveDomains();
  EXPECT_EQ(ask("alias nobody@d.example"), "OK box@x.example");
  EXPECT_EQ(ask("alias nobody+tag@d.example"), "OK box@x.example");
  EXPECT_EQ(ask("alias team+tag@d.example"), "OK a+tag@x.example");
  for (const char* somebody : {"bob@d.example", "bob+tag@d.example", "gone@d.example",
                               "shown@d.example", "shown+tag@d.example", "nobody@x.example"}) {
    EXPECT_EQ(ask(std::string("alias ") + somebody), "NOTFOUND ") << somebody;
  }
  serve("mask_unread", {}, Clock::now() - std::chrono::hours(2));
  EXPECT_EQ(ask("alias nobody@d.example"),
            "TEMP a mask table cannot be read, and may have the address");
}

TEST_F(LookupTest, WithoutTheOptionACatchAllIsAnAddressLikeOthers) {
  serve("alias", {{"*@d.example", "box@x.example"}});
  serveDomains();
  EXPECT_EQ(ask("alias nobody@d.example"), "NOTFOUND ");
  EXPECT_EQ(ask("alias *@d.example"), "OK box@x.example");
}

TEST_F(LookupTest, AMaskOfADomainHasKnownUsersOnlyWhenThatIsWanted) {
  m_settings.knownMaskUsers = true;
  serve("alias", {{"team@d.example", "a@x.example"}});
  serve("mask", {{"*@d.example", "*@out.example"}, {"own@d.example", "own.name@out.example"}});
  EXPECT_EQ(ask("mask_private bob@out.example"),
            "TEMP the configuration of domains and mail users cannot be read");
  EXPECT_EQ(ask("mask_private own.name@out.example"), "OK own@d.example");
  serveDomains();
  EXPECT_EQ(ask("mask_private bob@out.example"), "OK bob@d.example");
  EXPECT_EQ(ask("mask_private bob+tag@out.example"), "OK bob+tag@d.example");
  EXPECT_EQ(ask("mask_private team@out.example"), "OK team@d.example");
  EXPECT_EQ(ask("mask_private nobody@out.example"), "NOTFOUND ");
  // Nobody is shown without his mask because he is unknown.
  EXPECT_EQ(ask("mask_public nobody@d.example"), "OK nobody@out.example");
  serve("alias_unread", {}, Clock::now() - std::chrono::hours(2));
  EXPECT_EQ(ask("mask_private nobody@out.example"),
            "TEMP the database is unavailable, and the rows in memory are too old");
  EXPECT_EQ(ask("mask_private bob@out.example"), "OK bob@d.example");
}

TEST_F(LookupTest, AnswersWithoutDisabledUsersFollowTheConfigurationAndNeedIt) {
  m_settings.leaveOutDisabled = true;
  serve("alias", {{"team@d.example", "bob@d.example,gone@d.example"}});
  serve("mask", {{"bob@d.example", "bobby@out.example"}});
  const std::string unknown = "TEMP the configuration of domains and mail users cannot be read";
  EXPECT_EQ(ask("alias team@d.example"), unknown);
  EXPECT_EQ(ask("mask_private bobby@out.example"), unknown);
  EXPECT_EQ(ask("mask_public bob@d.example"), "OK bobby@out.example");
  serveDomains();
  for (int i = 0; i < 2; ++i) EXPECT_EQ(ask("alias team@d.example"), "OK bob@d.example");
  EXPECT_EQ(hits(), "1") << "an answer is kept while neither table nor configuration changes";
  {
    const ServedDomains served;
    CMF::Writer writer;
    writer.addUser("d.example", "gone", CMF::MailUserMailbox);
    writer.commit();
    tables().configuration().publish(ServedDomains::image(), Clock::now());
  }
  EXPECT_EQ(ask("alias team@d.example"), "OK bob@d.example,gone@d.example");
  serveDomains(Clock::now() - hours(2));
  EXPECT_EQ(ask("alias team@d.example"), unknown) << "the configuration is too old";
}

TEST_F(LookupTest, ATableWithoutAnImageIsATemporaryFailure) {
  tables().add("alias");
  tables().add("mask");
  for (const char* request : {"alias a@d.example", "alias no address", "mask_public a@d.example",
                              "mask_private a@d.example"}) {
    EXPECT_EQ(ask(request), "TEMP the table could not be read yet") << request;
  }
  serve("alias", {{"a@d.example", "b@d.example"}});
  EXPECT_EQ(ask("alias a@d.example"), "OK b@d.example");
}

TEST_F(LookupTest, AnImageAnswersAlikeUntilItIsTooOldAndNotAtAllThen) {
  m_settings.stale = minutes(10);
  const TablePointer table = tables().add("alias");
  publishRows(*table, {{"a@d.example", "b@d.example"}});
  for (const auto age : {minutes(0), minutes(1), minutes(9)}) {
    table->confirm(Clock::now() - age);
    EXPECT_EQ(ask("alias a@d.example"), "OK b@d.example") << age.count();
    EXPECT_EQ(ask("alias x@d.example"), "NOTFOUND ") << age.count();
  }
  table->confirm(Clock::now() - minutes(11));
  for (const char* request : {"alias a@d.example", "alias x@d.example", "alias no address"}) {
    EXPECT_THAT(ask(request), HasSubstr("TEMP the database is unavailable")) << request;
  }
  table->confirm(Clock::now());
  EXPECT_EQ(ask("alias a@d.example"), "OK b@d.example");
  EXPECT_EQ(ask("alias x@d.example"), "NOTFOUND ");
}

TEST_F(LookupTest, WithoutALimitAnImageAnswersForEver) {
  m_settings.stale.reset();
  serve("alias", {{"a@d.example", "b@d.example"}}, Clock::now() - hours(10000));
  EXPECT_EQ(ask("alias a@d.example"), "OK b@d.example");
  EXPECT_EQ(ask("alias x@d.example"), "NOTFOUND ");
}

TEST_F(LookupTest, TheShortestLimitLeavesTimeToLookAtTheTable) {
  m_settings.stale = seconds(0);
  serve("alias", {{"a@d.example", "b@d.example"}}, Clock::now() - seconds(1));
  EXPECT_EQ(ask("alias a@d.example"), "OK b@d.example");
  tables().find("alias")->confirm(Clock::now() - seconds(6));
  EXPECT_EQ(ask("alias a@d.example"),
            "TEMP the database is unavailable, and the rows in memory are too old");
}

TEST_F(LookupTest, AnAliasThatReachesNobodyIsRefusedForGood) {
  serve("alias", {{"a@d.example", "b@d.example"}, {"b@d.example", "a@d.example"}});
  EXPECT_EQ(ask("alias a@d.example"), "PERM this alias reaches nobody");
  EXPECT_EQ(ask("alias a+tag@d.example"), "PERM this alias reaches nobody");
}

TEST_F(LookupTest, AnAliasThatCannotBeReadIsATemporaryFailure) {
  serve("alias", {{"a@d.example", "no address"},
                  {"b@d.example", ""},
                  {"c@d.example", "x@d.example,a@d.example"}});
  for (const char* request :
       {"alias a@d.example", "alias b@d.example", "alias a+tag@d.example", "alias c@d.example"}) {
    EXPECT_EQ(ask(request), "TEMP the row of this alias cannot be read") << request;
  }
}

TEST_F(LookupTest, AnAliasForAllUsersThatCannotBeToldIsATemporaryFailure) {
  serve("alias", {{"all@d.example", "allusers_d.example"}});
  const char* const reply = "TEMP this alias means all users of a domain, which could not be read";
  EXPECT_EQ(ask("alias all@d.example"), reply);
  serveDomains();
  // A failure is not remembered.
  EXPECT_EQ(ask("alias all@d.example"), "OK Alice@d.example,bob@d.example");
}

TEST_F(LookupTest, AnExtensionIsKeptInTheAnswerForTheAddressWithoutIt) {
  serve("alias", {{"team@d.example", "a@d.example,b+own@d.example,\"c d\"@d.example"},
                  {"team+vip@d.example", "vip@d.example"}});
  EXPECT_EQ(ask("alias team+tag@d.example"),
            "OK a+tag@d.example,b+own@d.example,\"c d+tag\"@d.example");
  EXPECT_EQ(ask("alias team+Tag+more@d.example"),
            "OK a+Tag+more@d.example,b+own@d.example,\"c d+Tag+more\"@d.example");
  // The longer name comes first.
  EXPECT_EQ(ask("alias team+vip@d.example"), "OK vip@d.example");
  // What would need quotes is left out.
  EXPECT_EQ(ask("alias team+a b@d.example"),
            "OK a@d.example,b+own@d.example,\"c d+a b\"@d.example");
  EXPECT_EQ(ask("alias other+tag@d.example"), "NOTFOUND ");
  EXPECT_EQ(ask("alias +tag@d.example"), "NOTFOUND ");
  EXPECT_EQ(ask("alias \"team+tag\"@d.example"), "NOTFOUND ");
}

TEST_F(LookupTest, AnExtensionThatWouldMakeAnAddressTooLongIsLeftOut) {
  const std::string longName(60, 'l');
  serve("alias", {{"team@d.example", longName + "@d.example,b@d.example"}});
  EXPECT_EQ(ask("alias team+extension@d.example"),
            "OK b+extension@d.example," + longName + "@d.example");
}

TEST_F(LookupTest, AnExtensionCanBeDroppedOrMeanNothing) {
  serve("alias", {{"team@d.example", "a@d.example"}});
  serve("mask", {{"ann@in.example", "a.lee@out.example"}});
  m_settings.extension = ExtensionRule::Drop;
  EXPECT_EQ(ask("alias team+tag@d.example"), "OK a@d.example");
  EXPECT_EQ(ask("mask_public ann+tag@in.example"), "OK a.lee@out.example");
  m_settings.extension = ExtensionRule::Off;
  m_lookup.reset();
  EXPECT_EQ(ask("alias team+tag@d.example"), "NOTFOUND ");
  EXPECT_EQ(ask("mask_public ann+tag@in.example"), "NOTFOUND ");
  EXPECT_EQ(ask("alias team@d.example"), "OK a@d.example");
}

TEST_F(LookupTest, AnotherDelimiterCutsAtItButNotInNamesOfLists) {
  m_settings.delimiter = "-";
  serve("alias",
        {{"team@d.example", "a@d.example,owner-x@d.example"}, {"owner@d.example", "o@d.example"}});
  EXPECT_EQ(ask("alias team-tag@d.example"), "OK a-tag@d.example,owner-x-tag@d.example");
  EXPECT_EQ(ask("alias owner-team@d.example"), "NOTFOUND ");
  EXPECT_EQ(ask("alias team-request@d.example"), "NOTFOUND ");
  EXPECT_EQ(ask("alias team+tag@d.example"), "NOTFOUND ");
}

TEST_F(LookupTest, AMaskOfItsOwnComesBeforeTheWildcardAlsoWithAnExtension) {
  serve("mask", {{"ann@in.example", "a.lee@out.example"}, {"*@in.example", "*@all.example"}});
  EXPECT_EQ(ask("mask_public ann@in.example"), "OK a.lee@out.example");
  EXPECT_EQ(ask("mask_public ann+tag@in.example"), "OK a.lee+tag@out.example");
  EXPECT_EQ(ask("mask_public bob@in.example"), "OK bob@all.example");
  EXPECT_EQ(ask("mask_public Bob+Tag@IN.example"), "OK Bob+Tag@all.example");
  EXPECT_EQ(ask("mask_private A.Lee+tag@out.example"), "OK ann+tag@in.example");
  EXPECT_EQ(ask("mask_private bob@all.example"), "OK bob@in.example");
}

TEST_F(LookupTest, AnswersToExtensionsOfAMaskTakeNoMemory) {
  serve("mask", {{"ann@in.example", "a.lee@out.example"}});
  EXPECT_EQ(ask("mask_public ann@in.example"), "OK a.lee@out.example");
  const std::size_t before = tables().answerMemory().used();
  for (int i = 0; i < 1000; ++i) {
    const std::string tag = "+" + std::to_string(i);
    EXPECT_EQ(ask("mask_public ann" + tag + "@in.example"), "OK a.lee" + tag + "@out.example");
  }
  EXPECT_EQ(tables().answerMemory().used(), before);
}

TEST_F(LookupTest, AWildcardTakesEveryLocalPartThatIsAnAddressThere) {
  const std::string label(60, 'o');
  const std::string domain = label + "." + label + "." + label + "." + label;
  serve("mask", {{"*@in.example", "*@out.example"}, {"*@b\u00fccher.example", "*@" + domain}});
  EXPECT_EQ(ask("mask_public \"a b\"@in.example"), "OK \"a b\"@out.example");
  EXPECT_EQ(ask("mask_public a b@in.example"), "OK \"a b\"@out.example");
  EXPECT_EQ(ask("mask_public \"a@b\"@in.example"), "OK \"a@b\"@out.example");
  EXPECT_EQ(ask("mask_public J\u00f6rg@in.example"), "OK J\u00f6rg@out.example");
  EXPECT_EQ(ask("mask_public *@in.example"), "NOTFOUND ");
  EXPECT_EQ(ask("mask_public \"*\"@in.example"), "NOTFOUND ");
  EXPECT_EQ(ask("mask_private *@out.example"), "NOTFOUND ");
  EXPECT_EQ(ask("mask_public ann@xn--bcher-kva.example"), "OK ann@" + domain);
  // Too long an address.
  EXPECT_EQ(ask("mask_public a.long.name@xn--bcher-kva.example"), "NOTFOUND ");
}

TEST_F(LookupTest, WhoseMaskCannotBeReadIsNotShownWithoutIt) {
  serve("mask", {{"ann@in.example", "no address"},
                 {"*@in.example", "*@out.example"},
                 {"no address", "bob@out.example"},
                 {"*@lost.example", "*@"},
                 {"*", "*@back.example"}});
  for (const char* request :
       {"mask_public ann@in.example", "mask_public ann+tag@in.example",
        "mask_public any@lost.example", "mask_private bob@out.example",
        "mask_private bob+tag@out.example", "mask_private any@back.example"}) {
    EXPECT_EQ(ask(request), "TEMP the row of this address cannot be read") << request;
  }
  EXPECT_EQ(ask("mask_public bob@in.example"), "OK bob@out.example");
  EXPECT_EQ(ask("mask_private ann@out.example"), "OK ann@in.example");
}

TEST_F(LookupTest, KeysThatAreNoAddressAreNotFoundInAnyMap) {
  serveDomains();
  serve("alias", {{"a@d.example", "b@d.example"}});
  serve("mask", {{"a@d.example", "b@d.example"}, {"*@d.example", "*@e.example"}});
  const std::vector<std::string> keys = {"",
                                         "d.example",
                                         "@d.example",
                                         "a@",
                                         "*",
                                         "\"\"",
                                         "\"\"@d.example",
                                         "user@[192.0.2.1]",
                                         "a@b@d.example",
                                         "a@d.example@",
                                         "\"a\"@x@d.example",
                                         "<a@d.example>",
                                         " ",
                                         "a@d.example ",
                                         "a@d.example\n",
                                         std::string(10000, 'x'),
                                         std::string(10000, 'x') + "@d.example",
                                         "\xff\xfe@d.example",
                                         std::string("a\0@d.example", 12),
                                         std::string("a@d.example\0", 12)};
  for (const char* map : {"alias", "mask_public", "mask_private", "mailbox"}) {
    for (const std::string& key : keys) {
      EXPECT_EQ(ask(std::string(map) + " " + key), "NOTFOUND ") << map << " " << key;
      EXPECT_EQ(ask(std::string(map) + " " + key), "NOTFOUND ") << map << " " << key;
    }
  }
  EXPECT_EQ(ask("alias \"a\"@d.example"), "OK b@d.example");
  EXPECT_EQ(ask("mask_public \"A\"@d.example"), "OK b@d.example");
}

TEST_F(LookupTest, MailboxesAreTheUsersThatAreNotDisabled) {
  serveDomains();
  EXPECT_EQ(ask("mailbox bob@d.example"), "OK bob@d.example");
  EXPECT_EQ(ask("mailbox BOB@D.example"), "OK bob@d.example");
  EXPECT_EQ(ask("mailbox alice@d.example"), "OK alice@d.example");
  EXPECT_EQ(ask("mailbox room@d.example"), "OK room@d.example");
  EXPECT_EQ(ask("mailbox \"bob\"@d.example"), "OK bob@d.example");
  EXPECT_EQ(ask("mailbox bob+tag@d.example"), "OK bob@d.example");
  EXPECT_EQ(ask("mailbox ann@b\u00fccher.example"), "OK ann@xn--bcher-kva.example");
  for (const char* request :
       {"mailbox gone@d.example", "mailbox gone+tag@d.example", "mailbox nobody@d.example",
        "mailbox bob@unknown.example", "mailbox bob@empty.example", "mailbox d.example"}) {
    EXPECT_EQ(ask(request), "NOTFOUND ") << request;
  }
}

TEST_F(LookupTest, DomainsAreThoseOfTheConfiguration) {
  serveDomains();
  EXPECT_EQ(ask("domain d.example"), "OK d.example");
  EXPECT_EQ(ask("domain EMPTY.Example"), "OK empty.example");
  EXPECT_EQ(ask("domain B\u00fccher.example"), "OK xn--bcher-kva.example");
  for (const char* request : {"domain unknown.example", "domain ", "domain bob@d.example",
                              "domain .d.example", "domain d.example.", "domain example"}) {
    EXPECT_EQ(ask(request), "NOTFOUND ") << request;
  }
  EXPECT_EQ(ask("domain " + std::string(10000, 'x')), "NOTFOUND ");
}

TEST_F(LookupTest, AMaskThatMailServersWouldCutIsNeverGiven) {
  serve("mask", {{"c@d.example", "x@[x:d,e]"}});
  EXPECT_EQ(ask("mask_public c@d.example"), "TEMP an address literal in this row has a comma");
}

TEST_F(LookupTest, WithoutAConfigurationMailboxesAndDomainsAreTemporaryFailures) {
  EXPECT_EQ(ask("mailbox bob@d.example"),
            "TEMP the configuration of domains and mail users cannot be read");
  EXPECT_EQ(ask("domain d.example"),
            "TEMP the configuration of domains and mail users cannot be read");
  serveDomains();
  EXPECT_EQ(ask("mailbox bob@d.example"), "OK bob@d.example");
  EXPECT_EQ(ask("domain d.example"), "OK d.example");
}

TEST_F(LookupTest, AConfigurationAnswersAlikeUntilItIsTooOldAndNotAtAllThen) {
  m_settings.stale = minutes(10);
  serve("alias", {{"all@d.example", "allusers_d.example"}});
  serveDomains(Clock::now() - minutes(9));
  EXPECT_EQ(ask("mailbox bob@d.example"), "OK bob@d.example");
  EXPECT_EQ(ask("mailbox nobody@d.example"), "NOTFOUND ");
  EXPECT_EQ(ask("domain nowhere.example"), "NOTFOUND ");
  EXPECT_EQ(metric("stale_answers_total"), "3");
  tables().configuration().confirm(Clock::now() - minutes(11));
  for (const char* request : {"mailbox bob@d.example", "mailbox nobody@d.example",
                              "domain d.example", "domain nowhere.example"}) {
    EXPECT_EQ(ask(request), "TEMP the configuration of domains and mail users cannot be read");
  }
  EXPECT_EQ(ask("alias all@d.example"),
            "TEMP this alias means all users of a domain, which could not be read");
  EXPECT_EQ(ask("mailbox no address"), "NOTFOUND ");
  tables().configuration().confirm(Clock::now());
  EXPECT_EQ(ask("mailbox bob@d.example"), "OK bob@d.example");
  EXPECT_EQ(ask("alias all@d.example"), "OK Alice@d.example,bob@d.example");
}

TEST_F(LookupTest, TheConfigurationIsNeededByWhoAsksForWhatDependsOnIt) {
  serve("alias", {{"a@d.example", "b@d.example"}, {"all@d.example", "allusers_d.example"}});
  EXPECT_EQ(ask("alias a@d.example"), "OK b@d.example");
  EXPECT_FALSE(tables().configuration().isNeeded());
  EXPECT_EQ(ask("alias all@d.example"),
            "TEMP this alias means all users of a domain, which could not be read");
  EXPECT_TRUE(tables().configuration().isNeeded());
}

TEST_F(LookupTest, OneTableIsOneWhateverItsMapIsCalled) {
  serve("alias", {{"a@d.example", "b@d.example"}});
  serve("alias_second", {{"a@d.example", "c@d.example"}});
  for (const char* map : {"alias", "alias.", "alias:"}) {
    EXPECT_EQ(ask(std::string(map) + " a@d.example"), "OK b@d.example") << map;
  }
  for (const char* map : {"alias.second", "alias:second"}) {
    EXPECT_EQ(ask(std::string(map) + " a@d.example"), "OK c@d.example") << map;
  }
  EXPECT_EQ(hits(), "3");
}

TEST_F(LookupTest, TheDirectionsOfAMaskAreKeptApart) {
  serve("mask", {{"a@d.example", "b@d.example"}, {"b@d.example", "c@d.example"}});
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(ask("mask_public b@d.example"), "OK c@d.example");
    EXPECT_EQ(ask("mask_private b@d.example"), "OK a@d.example");
  }
  EXPECT_EQ(hits(), "2");
}

TEST_F(LookupTest, EachReplyIsCountedAsWhatItIs) {
  serve("alias", {{"a@d.example", "b@d.example"}, {"broken@d.example", "@"}});
  const auto count = [this](const std::string& map, const std::string& result) {
    return metric("requests_total{map=\"" + map + "\",result=\"" + result + "\"}");
  };
  for (int i = 0; i < 2; ++i) {
    ask("alias a@d.example");
    ask("alias broken@d.example");
    ask("alias x@d.example");
    ask("alias");
  }
  EXPECT_EQ(count("alias", "ok"), "2");
  EXPECT_EQ(count("alias", "temp"), "2");
  EXPECT_EQ(count("alias", "notfound"), "2");
  EXPECT_EQ(count("alias", "perm"), "0");
  EXPECT_EQ(count("none", "perm"), "2");
}

TEST_F(LookupTest, WhatIsNoAddressTakesNoMemory) {
  serve("alias", {{"a@d.example", "b@d.example"}});
  serve("mask", {{"a@d.example", "b@d.example"}});
  EXPECT_EQ(ask("alias a@d.example"), "OK b@d.example");
  const std::size_t before = tables().answerMemory().used();
  for (int i = 0; i < 1000; ++i) {
    const std::string key = std::string(990, 'x') + std::to_string(i);
    EXPECT_EQ(ask("alias " + key), "NOTFOUND ");
    EXPECT_EQ(ask("alias " + key + "@d.example"), "NOTFOUND ");
    EXPECT_EQ(ask("mask_public " + key), "NOTFOUND ");
  }
  EXPECT_EQ(tables().answerMemory().used(), before);
}

TEST_F(LookupTest, WhatIsNotAskedForAnyMoreGivesItsMemoryBack) {
  serve("alias", {{"a@d.example", "b@d.example"}});
  const std::weak_ptr<const TableImage> image = tables().find("alias")->image();
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(ask("alias x" + std::to_string(i) + "@d.example"), "NOTFOUND ");
  }
  EXPECT_GT(tables().answerMemory().used(), 100000U);
  serve("alias", {});
  EXPECT_FALSE(image.expired());
  lookup().sweep(Clock::now());
  EXPECT_TRUE(image.expired());
  for (int second = 0; second < 20; ++second) lookup().sweep(Clock::now() + minutes(10));
  EXPECT_EQ(tables().answerMemory().used(), 0U);
}

TEST_F(LookupTest, AnswersAreKeptUntilThereIsANewImage) {
  serve("alias", {{"a@d.example", "b@d.example"}, {"long@d.example", s_members(200)}});
  EXPECT_EQ(ask("alias a@d.example"), "OK b@d.example");
  EXPECT_EQ(ask("alias x@d.example"), "NOTFOUND ");
  EXPECT_THAT(s_list(ask("alias long@d.example")), SizeIs(200));
  EXPECT_EQ(hits(), "0");
  EXPECT_EQ(ask("alias a@d.example"), "OK b@d.example");
  EXPECT_EQ(ask("alias x@d.example"), "NOTFOUND ");
  EXPECT_THAT(s_list(ask("alias long@d.example")), SizeIs(200));
  EXPECT_EQ(hits(), "3");
  serve("alias", {{"a@d.example", "c@d.example"}, {"x@d.example", "y@d.example"}});
  EXPECT_EQ(ask("alias a@d.example"), "OK c@d.example");
  EXPECT_EQ(ask("alias x@d.example"), "OK y@d.example");
  EXPECT_EQ(ask("alias long@d.example"), "NOTFOUND ");
  EXPECT_EQ(hits(), "3");
}

// A long list, and the ways in which a mail server gets at its members.
class PageTest : public LookupTest {
 protected:
  // Asks as a mail server does: for each address of an answer again, until it is not found.
  std::set<std::string> resolve(const std::string& address) {
    const std::string reply = ask("alias " + address);
    if (reply == "NOTFOUND ") return {address};
    EXPECT_LE(reply.size(), m_settings.maxReply);
    const std::vector<std::string> list = s_list(reply);
    EXPECT_LE(list.size(), m_settings.page);
    std::set<std::string> reached;
    for (const std::string& member : list) reached.merge(resolve(member));
    return reached;
  }

  static std::set<std::string> setOf(const std::string& members) {
    const std::vector<std::string> list = s_list("OK " + members);
    return {list.begin(), list.end()};
  }
};

TEST_F(PageTest, AListThatFitsIsOneAnswer) {
  serve("alias", {{"list@d.example", s_members(500)}});
  EXPECT_EQ(ask("alias list@d.example"), "OK " + s_members(500));
}

TEST_F(PageTest, AListOfTooManyAddressesIsGivenInPages) {
  serve("alias", {{"list@D.example", s_members(501)}});
  const std::vector<std::string> pages = s_list(ask("alias list@d.example"));
  EXPECT_THAT(pages, SizeIs(2));
  EXPECT_THAT(pages, Each(StartsWith("tslpage")));
  EXPECT_THAT(pages, Each(HasSubstr("@d.example")));
  EXPECT_EQ(resolve("list@d.example"), setOf(s_members(501)));
}

TEST_F(PageTest, AListThatIsTooLongForAReplyIsGivenInPages) {
  m_settings.maxReply = 1024;
  serve("alias", {{"list@d.example", s_members(100)}});
  EXPECT_EQ(resolve("list@d.example"), setOf(s_members(100)));
}

TEST_F(PageTest, PagesMayBePagesOfPages) {
  m_settings.page = 2;
  serve("alias", {{"list@d.example", s_members(37)}});
  EXPECT_EQ(resolve("list@d.example"), setOf(s_members(37)));
}

TEST_F(PageTest, AnExtensionGoesThroughThePages) {
  m_settings.page = 3;
  serve("alias", {{"list@d.example", s_members(30)}});
  std::set<std::string> expected;
  for (const std::string& member : setOf(s_members(30))) {
    expected.insert(member.substr(0, member.find('@')) + "+tag@d.example");
  }
  EXPECT_EQ(resolve("list+tag@d.example"), expected);
}

TEST_F(PageTest, NoReplyBecomesTooLongByAnExtension) {
  m_settings.maxReply = 1024;
  for (int count = 1; count < 60; ++count) {
    serve("alias", {{"list@d.example", s_members(count)}});
    for (const std::string& extension :
         {std::string("+t"), "+" + std::string(49, 'l'), "+" + std::string(8, '"')}) {
      const std::string asked = "list" + extension + "@d.example";
      const bool isAll = resolve(asked).size() == static_cast<std::size_t>(count);
      EXPECT_TRUE(isAll) << count << " for " << asked;
    }
  }
}

TEST_F(PageTest, TheSameTableGivesTheSamePages) {
  serve("alias", {{"list@d.example", s_members(600)}});
  const std::string first = ask("alias list@d.example");
  EXPECT_EQ(ask("alias list@d.example"), first);
  EXPECT_EQ(ask("alias LIST@d.example"), first);
  Lookup other(m_settings, tables(), m_metrics, m_log);
  EXPECT_EQ(*other.reply("alias list@d.example"), first);
  serve("alias", {{"other@d.example", "x@d.example"}, {"list@d.example", s_members(600)}});
  EXPECT_EQ(ask("alias list@d.example"), first);
}

TEST_F(PageTest, PagesStayAsTheyAreWhenTheListChanges) {
  serve("alias", {{"list@d.example", s_members(600)}});
  const std::vector<std::string> before = s_list(ask("alias list@d.example"));
  serve("alias", {{"list@d.example", s_members(600, "new")}});
  const std::vector<std::string> after = s_list(ask("alias list@d.example"));
  EXPECT_NE(before, after);
  std::set<std::string> reached;
  for (const std::string& page : before) reached.merge(resolve(page));
  EXPECT_EQ(reached, setOf(s_members(600)));
  EXPECT_EQ(resolve("list@d.example"), setOf(s_members(600, "new")));
  serve("alias", {});
  EXPECT_EQ(resolve(before[0]).size() + resolve(before[1]).size(), 600U);
}

TEST_F(PageTest, AListIsExpandedOnceForAllExtensions) {
  serve("alias", {{"list@d.example", s_members(600)}});
  for (int i = 0; i < 10; ++i) {
    const std::string tag = "+t" + std::to_string(i);
    const std::vector<std::string> pages = s_list(ask("alias list" + tag + "@d.example"));
    EXPECT_THAT(pages, SizeIs(2));
    EXPECT_THAT(pages, Each(HasSubstr(tag + "@d.example")));
  }
  EXPECT_EQ(hits(), "9");
}

TEST_F(PageTest, AListWhosePagesAreGoneGetsNewOnes) {
  m_settings.maxMemory = 50000;
  serve("alias", {{"list@d.example", s_members(600)}, {"other@d.example", s_members(900, "v")}});
  const std::string before = ask("alias list@d.example");
  EXPECT_EQ(resolve("other@d.example"), setOf(s_members(900, "v")));
  EXPECT_EQ(ask("alias " + s_list(before).at(0)),
            "TEMP this part of a list is gone; ask for the list again");
  const std::string after = ask("alias list@d.example");
  EXPECT_NE(after, before);
  EXPECT_EQ(resolve("list@d.example"), setOf(s_members(600)));
}

TEST_F(PageTest, AListForWhosePagesThereIsNoMemoryIsATemporaryFailure) {
  m_settings.maxMemory = 20000;
  serve("alias", {{"list@d.example", s_members(600)}, {"a@d.example", "b@d.example"}});
  EXPECT_EQ(ask("alias list@d.example"), "TEMP out of memory");
  EXPECT_EQ(ask("alias a@d.example"), "OK b@d.example");
  EXPECT_LE(tables().pageMemory().used(), 10000U);
}

TEST_F(PageTest, APageThatIsGoneIsATemporaryFailure) {
  serve("alias", {{"list@d.example", s_members(600)}});
  const char* const reply = "TEMP this part of a list is gone; ask for the list again";
  EXPECT_EQ(ask("alias tslpage0123456789abcdef01234567x0@d.example"), reply);
  EXPECT_EQ(ask("alias tslpage0123456789abcdef01234567x0+tag@d.example"), reply);
  const std::string page = s_list(ask("alias list@d.example")).at(0);
  std::string beyond = page;
  beyond.replace(page.find('x'), page.find('@') - page.find('x'), "x99");
  EXPECT_EQ(ask("alias " + beyond), reply);
  // Names that only look alike are those of anybody.
  EXPECT_EQ(ask("alias tslpage@d.example"), "NOTFOUND ");
}

TEST_F(PageTest, APageOfAnotherTableIsNotFoundSoThatTheMailServerAsksThere) {
  serve("alias", {});
  serve("alias_second", {{"list@d.example", s_members(600)}});
  const std::vector<std::string> pages = s_list(ask("alias:second list@d.example"));
  EXPECT_EQ(ask("alias " + pages.at(0)), "NOTFOUND ");
  EXPECT_THAT(s_list(ask("alias:second " + pages.at(0))), SizeIs(500));
}

TEST_F(PageTest, ADomainWithoutRoomForThePagesOfAListIsATemporaryFailure) {
  const std::string label(60, 'l');
  const std::string domain = label + "." + label + "." + label + "." + label;
  serve("alias", {{"list@" + domain, s_members(600)}, {"a@" + domain, "b@d.example"}});
  EXPECT_EQ(ask("alias list@" + domain), "TEMP the request could not be answered");
  EXPECT_EQ(ask("alias a@" + domain), "OK b@d.example");
}

}  // namespace
}  // namespace Tessel::Serve
