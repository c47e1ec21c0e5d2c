// Who may write where: each kind of rule, for whom it permits, refuses, and when nobody knows.
#include "serve/answer/Policy.h"

#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "serve/answer/Lookup.h"
#include "support/ErrorOutput.h"
#include "tables/AddressKey.h"
#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using testing::StartsWith;

constexpr const char* s_permitted = "DUNNO";
const std::string s_waiting = "DEFER_IF_PERMIT 4.3.0 ";
const std::string s_unknown =
    s_waiting +
    "it is not known now who may write to this address: a row, a rule, the users or the login";
constexpr const char* s_refused = "REJECT 5.7.1 only some people may write to ";

class PolicyTest : public testing::Test {
 protected:
  void SetUp() override {
    m_settings.loginDomain = "d.example";
    m_settings.trust = {parseNetwork("--trust", "192.0.2.0/24")};
    aliases("alias", {{"open@d.example", "ann@x.example"},
                      {"known@d.example", "ann@x.example"},
                      {"domain@d.example", "ann@x.example"},
                      {"members@d.example", "bob@d.example,inner@d.example"},
                      {"inner@d.example", "cid+list@x.example"},
                      {"listed@d.example", "ann@x.example"},
                      {"outer@d.example", "x@x.example,open@d.example,members@d.example"},
                      {"all@d.example", "allusers_d.example"}});
    rules({{"alias known@d.example", "authenticated\t\t\t"},
           {"alias domain@d.example", "domain\t\t\t"},
           {"alias members@d.example", "members\t\t\t"},
           {"alias all@d.example", "members\t\t\t"},
           {"alias listed@d.example", "listed\t\t\tAnn@X.example,inner@d.example"}});
    m_tables.configuration().publish(m_domains.image(), Clock::now());
  }

  void aliases(const std::string& table, const Rows& rows) {
    publishRows(*m_tables.add(table), rows);
    publishRows(*m_tables.add(sqlNameOf(TableKind::Mask, Tool::readTableName(table)->name)), {});
  }
  void rules(const Rows& rows) { publishRows(*m_tables.add("rules"), rows); }

  std::string ask(const std::string& recipient, const std::string& login = "",
                  const std::string& client = "198.51.100.1", const std::string& context = "") {
    return *m_lookup.action({"smtpd_access_policy", "RCPT", recipient, login, client, context},
                            m_now);
  }
  std::string refusal(const std::string& recipient) { return s_refused + recipient; }
  // Asked for, the writer may write to all of `recipients`, and must not to all of `others`.
  void expect(const std::string& login, const std::vector<std::string>& recipients,
              const std::vector<std::string>& others) {
    for (const std::string& recipient : recipients) {
      EXPECT_EQ(ask(recipient, login), s_permitted) << login << " to " << recipient;
    }
    for (const std::string& recipient : others) {
      EXPECT_EQ(ask(recipient, login), refusal(recipient)) << login << " to " << recipient;
    }
  }

  const ServedDomains m_domains;
  Settings m_settings;
  Tables m_tables{m_settings};
  Metrics m_metrics;
  Log m_log{LogLevel::Warning};
  Lookup m_lookup{m_settings, m_tables, m_metrics, m_log};
  Clock::time_point m_now = Clock::now();
};

TEST_F(PolicyTest, WhoHasNotLoggedInMayWriteToWhatIsOpen) {
  expect("", {"open@d.example", "nobody@d.example", "bob@d.example"},
         {"known@d.example", "domain@d.example", "members@d.example", "listed@d.example",
          "outer@d.example", "all@d.example"});
}

TEST_F(PolicyTest, WhoHasLoggedInIsJudgedByHisAddress) {
  // Another domain, and on no list.
  expect("eve@y.example", {"open@d.example", "known@d.example"},
         {"domain@d.example", "members@d.example", "listed@d.example", "outer@d.example"});
  // A member, as a user of the domain too; also without the domain of the login.
  for (const char* login : {"bob@d.example", "BOB@D.example", "bob"}) {
    expect(login,
           {"known@d.example", "domain@d.example", "members@d.example", "outer@d.example",
            "all@d.example"},
           {"listed@d.example"});
  }
  // A member by an inner list, with an extension there; and by that listed.
  expect("cid@x.example", {"members@d.example", "outer@d.example", "listed@d.example"},
         {"domain@d.example", "all@d.example"});
  expect("ann@x.example", {"listed@d.example"}, {"members@d.example", "domain@d.example"});
  // Neither are user mailboxes: a room, one that is disabled, and one that is not there.
  for (const char* login : {"room@d.example", "gone@d.example", "none@d.example"}) {
    expect(login, {"known@d.example"}, {"domain@d.example", "all@d.example"});
  }
}

TEST_F(PolicyTest, ATrustedNetworkIsNobodyInParticular) {
  EXPECT_EQ(ask("known@d.example", "", "192.0.2.1"), s_permitted);
  EXPECT_EQ(ask("domain@d.example", "", "192.0.2.1"), refusal("domain@d.example"));
  EXPECT_EQ(ask("members@d.example", "", "192.0.2.1"), refusal("members@d.example"));
  // The answer that is kept is that of the other network.
  EXPECT_EQ(ask("known@d.example", "", "198.51.100.1"), refusal("known@d.example"));
  EXPECT_EQ(ask("members@d.example", "-bob", "192.0.2.1"), refusal("members@d.example"));
  EXPECT_EQ(ask("members@d.example", "bob", "198.51.100.1"), s_permitted);
}

TEST_F(PolicyTest, AnExtensionAndAnotherSpellingLeadToTheSameList) {
  for (const char* recipient :
       {"MEMBERS@D.example", "members+x@d.example", "Members+x+y@d.Example"}) {
    EXPECT_EQ(ask(recipient), refusal(recipient));
    EXPECT_EQ(ask(recipient, "bob"), s_permitted) << recipient;
  }
}

TEST_F(PolicyTest, AMaskLeadsToItsAlias) {
  publishRows(*m_tables.find("mask"),
              {{"members@d.example", "team@out.example"}, {"*@d.example", "*@wide.example"}});
  for (const char* recipient : {"team@out.example", "team+x@out.example", "domain@wide.example"}) {
    EXPECT_EQ(ask(recipient), refusal(recipient));
    EXPECT_EQ(ask(recipient, "bob"), s_permitted) << recipient;
  }
  EXPECT_EQ(ask("open@wide.example"), s_permitted);
  // A mask of a mask, and masks that lead back to themselves.
  publishRows(*m_tables.find("mask"), {{"members@d.example", "team@out.example"},
                                       {"team@out.example", "crew@out.example"},
                                       {"x@out.example", "y@out.example"},
                                       {"y@out.example", "x@out.example"}});
  EXPECT_EQ(ask("crew@out.example"), refusal("crew@out.example"));
  EXPECT_EQ(ask("x@out.example"), "DEFER_IF_PERMIT 4.3.0 the mask of this address is not known");
}

TEST_F(PolicyTest, ACatchAllIsAListLikeOthers) {
  m_settings.catchAll = true;
  aliases("alias", {{"*@d.example", "ann@x.example"}, {"open@d.example", "ann@x.example"}});
  rules({{"alias *@d.example", "authenticated\t\t\t"}});
  expect("", {"open@d.example", "bob@d.example", "nobody@x.example"}, {"nobody@d.example"});
  expect("bob", {"nobody@d.example"}, {});
}

TEST_F(PolicyTest, WithoutTheMailUsersNobodyKnowsWhomACatchAllCatches) {
  m_settings.catchAll = true;
  Tables tables(m_settings);
  publishRows(*tables.add("alias"), {{"*@d.example", "ann@x.example"}});
  for (const char* table : {"mask", "rules"}) publishRows(*tables.add(table), {});
  Lookup lookup(m_settings, tables, m_metrics, m_log);
  EXPECT_EQ(*lookup.action({"smtpd_access_policy", "RCPT", "x@d.example", "", "", ""}),
            s_waiting + "whether somebody has this address is not known");
}

TEST_F(PolicyTest, TheContextNamesTheTables) {
  aliases("alias_staff", {{"open@d.example", "members@d.example"}, {"own@d.example", "x@d"}});
  rules({{"alias_staff ", "authenticated\t\t\t"}, {"alias members@d.example", "members\t\t\t"}});
  const auto asks = [this](const char* recipient, const char* context, const char* login = "") {
    return ask(recipient, login, "", context);
  };
  EXPECT_EQ(asks("own@d.example", ""), s_permitted);
  EXPECT_EQ(asks("own@d.example", "alias"), s_permitted);
  EXPECT_EQ(asks("own@d.example", "alias.staff"), refusal("own@d.example"));
  EXPECT_EQ(asks("own@d.example", "alias, alias.staff"), refusal("own@d.example"));
  EXPECT_EQ(asks("own@d.example", "alias.staff", "eve@y.example"), s_permitted);
  // The first that has it is what a mail server takes; and from there on all of them.
  EXPECT_EQ(asks("open@d.example", "alias alias.staff"), s_permitted);
  EXPECT_EQ(asks("open@d.example", "alias.staff alias", "eve@y.example"),
            refusal("open@d.example"));
  EXPECT_EQ(asks("open@d.example", "alias.staff", "eve@y.example"), s_permitted);
  EXPECT_EQ(asks("bob@d.example", "alias.none"), s_waiting + "there is no table alias_none");
  for (const char* wrong : {"mailbox", "alias,x", "mask_public"}) {
    EXPECT_EQ(asks("bob@d.example", wrong), s_waiting + "policy_context names no tables of aliases")
        << wrong;
  }
}

TEST_F(PolicyTest, WhatIsNotKnownMakesMailWait) {
  const auto waits = [this](const char* recipient, const char* login = "") {
    EXPECT_EQ(ask(recipient, login), s_unknown) << recipient;
  };
  // A login without an address, which is somebody.
  m_settings.loginDomain.clear();
  waits("members@d.example", "bob");
  EXPECT_EQ(ask("known@d.example", "bob"), s_permitted);
  // A rule, or a row on the way.
  rules(
      {{"alias members@d.example", "nonsense\t\t\t"}, {"alias known@d.example", "members\t\t\t"}});
  waits("members@d.example");
  waits("outer@d.example", "bob@d.example");
  EXPECT_EQ(ask("open@d.example"), s_permitted);
  aliases("alias", {{"a@d.example", "b@d.example,c@d.example"},
                    {"b@d.example", "@"},
                    {"c@d.example", "x@d.example"}});
  rules({{"alias c@d.example", "authenticated\t\t\t"}});
  waits("a@d.example", "bob@d.example");
  // What one rule refuses needs no other.
  EXPECT_EQ(ask("a@d.example"), refusal("a@d.example"));
  // What the mail server may make an address of.
  const std::string noAddress = s_waiting + "the recipient is not a whole address";
  EXPECT_EQ(ask("members"), noAddress);
  EXPECT_EQ(ask("members%d.example"), noAddress);
  EXPECT_EQ(ask("members@d.example."), noAddress);
  EXPECT_EQ(ask("Postmaster"), s_permitted);
}

TEST_F(PolicyTest, WithoutUsersOnlyTheRulesAboutThemWait) {
  Tables tables(m_settings);
  Lookup lookup(m_settings, tables, m_metrics, m_log);
  publishRows(*tables.add("mask"), {});
  publishRows(*tables.add("alias"), {{"a@d.example", "x@x"}, {"b@d.example", "bob@d.example"}});
  publishRows(*tables.add("rules"),
              {{"alias a@d.example", "domain\t\t\t"}, {"alias b@d.example", "members\t\t\t"}});
  const auto action = [&](const char* recipient) {
    return *lookup.action({"smtpd_access_policy", "RCPT", recipient, "bob", "", ""});
  };
  EXPECT_EQ(action("b@d.example"), s_permitted);
  EXPECT_FALSE(tables.configuration().isNeeded());
  EXPECT_EQ(action("a@d.example"), s_unknown);
  EXPECT_TRUE(tables.configuration().isNeeded());
  tables.configuration().publish(m_domains.image(), Clock::now());
  EXPECT_EQ(action("a@d.example"), s_permitted);
}

TEST_F(PolicyTest, AnOutageChangesNothingWithinStaleAndMakesMailWaitAfterIt) {
  EXPECT_EQ(ask("members@d.example"), refusal("members@d.example"));
  m_now += 50min;
  EXPECT_EQ(ask("members@d.example"), refusal("members@d.example"));
  EXPECT_EQ(ask("members@d.example", "bob"), s_permitted);
  EXPECT_EQ(ask("domain@d.example", "bob"), s_permitted);
  m_now += 20min;
  for (const char* recipient : {"members@d.example", "open@d.example", "bob@d.example"}) {
    EXPECT_EQ(ask(recipient, "bob"),
              "DEFER_IF_PERMIT 4.3.0 mask: the database is unavailable, and the rows in memory are "
              "too old");
  }
}

TEST_F(PolicyTest, WithoutATableOfRulesMailToAliasesWaits) {
  EXPECT_EQ(ask("open@d.example"), s_permitted);
  m_tables.find("rules")->setState(TableState::Missing);
  EXPECT_THAT(ask("open@d.example"), StartsWith("DEFER_IF_PERMIT 4.3.0 the rules of aliases: "));
  m_tables.remove("rules");
  EXPECT_EQ(ask("open@d.example"),
            "DEFER_IF_PERMIT 4.3.0 there is no table of the rules of aliases");
  EXPECT_EQ(ask("bob@d.example"), s_permitted);
  rules({});
  EXPECT_EQ(ask("members@d.example"), s_permitted);
}

TEST_F(PolicyTest, AChainOfMasksIsFollowedToItsEndUnlessItHasAHundred) {
  const auto name = [](int i) {
    return i == 0 ? "members@d.example" : "m" + std::to_string(i) + "@d";
  };
  Rows masks;
  for (int i = 0; i < 100; ++i) masks.emplace_back(name(i), name(i + 1));
  publishRows(*m_tables.find("mask"), masks);
  EXPECT_EQ(ask(name(99)), refusal(name(99)));
  EXPECT_EQ(ask(name(100)), s_waiting + "the mask of this address is not known");
}

TEST_F(PolicyTest, AnAliasThatHasExpiredAsksForNothing) {
  rules({{"alias members@d.example", "members\t2001-01-01 00:00:00\t\t"}});
  EXPECT_EQ(ask("members@d.example"), s_permitted);
  EXPECT_EQ(ask("outer@d.example"), s_permitted);
  // Its base counts then.
  aliases("alias", {{"a+x@d.example", "c@d.example"}, {"a@d.example", "b@d.example"}});
  rules({{"alias a+x@d.example", "anyone\t2001-01-01 00:00:00\t\t"},
         {"alias a@d.example", "members\t\t\t"}});
  EXPECT_EQ(ask("a+x@d.example"), refusal("a+x@d.example"));
}

TEST_F(PolicyTest, NobodyIsAMemberByAnAliasThatHasExpired) {
  rules({{"alias members@d.example", "members\t\t\t"},
         {"alias inner@d.example", "anyone\t2001-01-01 00:00:00\t\t"}});
  EXPECT_EQ(ask("members@d.example", "cid@x.example"), refusal("members@d.example"));
  // Nor is its own address one of a person.
  EXPECT_EQ(ask("members@d.example", "inner@d.example"), refusal("members@d.example"));
  EXPECT_EQ(ask("members@d.example", "bob"), s_permitted);
}

TEST_F(PolicyTest, AliasLoopsAndAliasesThatNameThemselvesEnd) {
  aliases("alias", {{"a@d.example", "b@d.example,a@d.example"}, {"b@d.example", "a@d.example"}});
  rules({{"alias a@d.example", "members\t\t\t"}});
  EXPECT_EQ(ask("b@d.example", "a@d.example"), s_permitted);
  EXPECT_EQ(ask("b@d.example", "b@d.example"), refusal("b@d.example"));
}

TEST_F(PolicyTest, OtherQuestionsArePermittedOrWait) {
  Testing::ErrorOutput error;
  EXPECT_EQ(*m_lookup.action({"smtpd_access_policy", "DATA", "", "", "", ""}), s_permitted);
  m_log.flush();
  EXPECT_EQ(error.take(),
            "tsl-address-map: warning: the policy was asked for without a recipient: ask for it in"
            " smtpd_recipient_restrictions\n");
  EXPECT_EQ(*m_lookup.action({"", "RCPT", "open@d.example", "", "", ""}),
            "DEFER_IF_PERMIT 4.3.0 this is not a request for an access policy");
}

TEST_F(PolicyTest, TheTextIsThatOfTheSettingsAndNamesOnlyWhatEveryReplyCanHave) {
  m_settings.policyText = "ask the owner of {address}";
  EXPECT_EQ(ask("known@d.example"), "REJECT 5.7.1 ask the owner of known@d.example");
  m_settings.policyText = "no";
  EXPECT_EQ(refuseAction(m_settings, "x@d"), "REJECT 5.7.1 no");
  m_settings.policyText = "{address}";
  EXPECT_EQ(refuseAction(m_settings, "gr\u00fcn@d"), "REJECT 5.7.1 this address");
  EXPECT_EQ(refuseAction(m_settings, "a\tb@d"), "REJECT 5.7.1 this address");
  EXPECT_EQ(refuseAction(m_settings, std::string(201, 'x')), "REJECT 5.7.1 this address");
}

TEST_F(PolicyTest, AnswersAreCountedAndKept) {
  ask("members@d.example", "bob");
  ask("members@d.example", "bob");
  ask("members@d.example");
  const std::string text = metricsText(m_metrics, m_tables, Clock::now());
  const auto has = [&text](const std::string& line) {
    return text.find("\ntsl_address_map_" + line + "\n") != std::string::npos;
  };
  EXPECT_TRUE(has("requests_total{map=\"policy\",result=\"ok\"} 2"));
  EXPECT_TRUE(has("requests_total{map=\"policy\",result=\"refused\"} 1"));
  EXPECT_TRUE(has("requests_total{map=\"policy\",result=\"temp\"} 0"));
  EXPECT_FALSE(has("requests_total{map=\"alias\",result=\"refused\"} 0"));
  EXPECT_TRUE(has("cache_hits_total 1"));
}

TEST_F(PolicyTest, SendersAreMailboxesAndAliasesAsTheirOwnersSay) {
  rules({{"alias members@d.example", "members\t\tbob@d.example,eve@y.example\t"},
         {"alias bob@d.example", "anyone\t\teve@y.example\t"},
         {"alias all@d.example", "nonsense\t\t\t"},
         {"alias inner@d.example", "anyone\t2001-01-01 00:00:00\teve@y.example\t"}});
  const auto logins = [this](const char* address, const char* map = "sender_login") {
    return *m_lookup.reply(std::string(map) + " " + address);
  };
  EXPECT_EQ(logins("bob@d.example"), "OK bob@d.example,bob");
  EXPECT_EQ(logins("Bob+x@d.example"), "OK bob@d.example,bob");
  EXPECT_EQ(logins("room@d.example"), "OK room@d.example,room");
  EXPECT_EQ(logins("members@d.example"), "OK bob@d.example,bob,eve@y.example");
  EXPECT_EQ(logins("members+x@d.example"), "OK bob@d.example,bob,eve@y.example");
  for (const char* nobody : {"open@d.example", "gone@d.example", "none@d.example",
                             "inner@d.example", "@d.example", "bob"}) {
    EXPECT_EQ(logins(nobody), "NOTFOUND ") << nobody;
  }
  EXPECT_EQ(logins("all@d.example"), "TEMP the rule of this alias cannot be read");
  EXPECT_EQ(logins("bob@d.example", "sender_login.none"), "TEMP the table could not be read yet");
  // An alias and a mailbox at once.
  aliases("alias", {{"bob@d.example", "bob@d.example,copy@x.example"}});
  EXPECT_EQ(logins("bob@d.example"), "OK bob@d.example,bob,eve@y.example");
  // A mail server would take one owner for several.
  rules({{"alias bob@d.example", "anyone\t\t\"x,eve@y.example\"@d.example\t"}});
  EXPECT_EQ(logins("bob@d.example"), "OK bob@d.example,bob");
  std::string many;
  for (int i = 0; many.size() <= m_settings.maxReply; ++i) {
    many += (i == 0 ? "o" : ",o") + std::to_string(i) + "@x.example";
  }
  rules({{"alias bob@d.example", "anyone\t\t" + many + "\t"}});
  EXPECT_EQ(logins("bob@d.example"), "TEMP the logins of this address are too many for a reply");
}

}  // namespace
}  // namespace Tessel::Serve
