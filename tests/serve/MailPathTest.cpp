// What a mail server does with mail, from the replies to its lookups.
#include "serve/answer/MailPath.h"

#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Tessel::Serve {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A service that has what `replies` say, by "MAP KEY", and nothing else.
class MailPathTest : public testing::Test {
 protected:
  MailPath pathOf(const std::string& address, const std::string& table = "") {
    return mailPathOf(address, table, "+", [this](const std::string& map, const std::string& key) {
      const auto known = m_replies.find(map + " " + key);
      return known != m_replies.end() ? known->second : "NOTFOUND ";
    });
  }

  std::map<std::string, std::string> m_replies{{"domain d.example", "OK d.example"},
                                               {"mailbox ann@d.example", "OK ann@d.example"}};
};

TEST(MailPath, HasAWordForEachFate) {
  EXPECT_STREQ(textOf(Fate::Mailbox), "mailbox");
  EXPECT_STREQ(textOf(Fate::Elsewhere), "elsewhere");
  EXPECT_STREQ(textOf(Fate::Refused), "refused");
  EXPECT_STREQ(textOf(Fate::Waits), "waits");
}

TEST_F(MailPathTest, AMailboxIsReachedAsItIs) {
  const MailPath path = pathOf("ann@d.example");
  EXPECT_THAT(path.steps, ElementsAre(MailStep{"mask_private", "ann@d.example", "NOTFOUND "},
                                      MailStep{"alias", "ann@d.example", "NOTFOUND "}));
  EXPECT_THAT(path.recipients, ElementsAre(MailRecipient{"ann@d.example", Fate::Mailbox}));
  EXPECT_EQ(path.fate, Fate::Mailbox);
}

TEST_F(MailPathTest, TheMaskComesBeforeTheAliasWhoseMembersFareEachInItsWay) {
  m_replies["mask_private team@out.example"] = "OK team@d.example";
  m_replies["alias team@d.example"] = "OK ann@d.example,gone@d.example,\"a,b\"@far.example";
  const MailPath path = pathOf("team@out.example");
  EXPECT_EQ(path.steps.back().key, "team@d.example");
  EXPECT_THAT(path.recipients, ElementsAre(MailRecipient{"\"a,b\"@far.example", Fate::Elsewhere},
                                           MailRecipient{"ann@d.example", Fate::Mailbox},
                                           MailRecipient{"gone@d.example", Fate::Refused}));
  EXPECT_EQ(path.fate, Fate::Refused);
}

TEST_F(MailPathTest, TheStepFromATagToTheAddressWithoutItIsShown) {
  m_replies["mask_private team@out.example"] = "OK team@d.example";
  m_replies["mask_private team+x@out.example"] = "OK team+x@d.example";
  m_replies["alias team@d.example"] = "OK ann@d.example,b@far.example";
  m_replies["alias team+x@d.example"] = "OK ann+x@d.example,b+x@far.example";
  m_replies["mailbox ann+x@d.example"] = "OK ann@d.example";
  const MailPath path = pathOf("team+x@out.example");
  EXPECT_THAT(path.steps,
              ElementsAre(MailStep{"mask_private", "team+x@out.example", "OK team+x@d.example",
                                   "team@out.example"},
                          MailStep{"alias", "team+x@d.example",
                                   "OK ann+x@d.example,b+x@far.example", "team@d.example"}));
  EXPECT_THAT(path.recipients,
              ElementsAre(MailRecipient{"ann+x@d.example", Fate::Mailbox, "ann@d.example"},
                          MailRecipient{"b+x@far.example", Fate::Elsewhere}));
  // A service that drops the tag.
  m_replies["alias team+x@d.example"] = m_replies["alias team@d.example"];
  EXPECT_EQ(pathOf("team+x@d.example").steps[1].base, "team@d.example");
}

TEST_F(MailPathTest, AMemberWithATagIsFollowedToTheAliasWithoutIt) {
  m_replies["alias team@d.example"] = "OK b+x@d.example";
  m_replies["alias b+x@d.example"] = "OK b+x@d.example,ann+x@d.example";
  m_replies["alias b@d.example"] = "OK b@d.example,ann@d.example";
  m_replies["mailbox ann+x@d.example"] = "OK ann@d.example";
  const MailPath path = pathOf("team@d.example");
  EXPECT_EQ(path.steps.back(), (MailStep{"alias", "b+x@d.example",
                                         "OK b+x@d.example,ann+x@d.example", "b@d.example"}));
  EXPECT_THAT(path.recipients,
              ElementsAre(MailRecipient{"ann+x@d.example", Fate::Mailbox, "ann@d.example"},
                          MailRecipient{"b+x@d.example", Fate::Refused}));
  m_replies["alias b+x@d.example"] = "TEMP the row cannot be read";
  EXPECT_EQ(pathOf("team@d.example").fate, Fate::Waits);
}

TEST_F(MailPathTest, ARowOfTheTagItselfIsNoStepFromIt) {
  m_replies["alias team@d.example"] = "OK ann@d.example";
  m_replies["alias team+x@d.example"] = "OK x@far.example";
  EXPECT_EQ(pathOf("team+x@d.example").steps[1].base, "");
  // Nor is a mailbox in another letter case.
  m_replies["mailbox ANN@d.example"] = "OK ann@d.example";
  EXPECT_EQ(pathOf("ANN@d.example").recipients[0].base, "");
}

TEST_F(MailPathTest, PagesAreFollowed) {
  const std::string page = "tslpage0123456789abcdef01234567x0@d.example";
  m_replies["alias big@d.example"] = "OK x@far.example," + page;
  m_replies["alias " + page] = "OK ann@d.example";
  const MailPath path = pathOf("big@d.example");
  EXPECT_THAT(path.recipients, ElementsAre(MailRecipient{"ann@d.example", Fate::Mailbox},
                                           MailRecipient{"x@far.example", Fate::Elsewhere}));
  EXPECT_EQ(path.steps.size(), 3U);
}

TEST_F(MailPathTest, WhatCannotBeToldWaits) {
  for (const char* request : {"mask_private ann@d.example", "alias ann@d.example"}) {
    m_replies[request] = "TEMP the table is missing";
    const MailPath path = pathOf("ann@d.example");
    EXPECT_EQ(path.fate, Fate::Waits) << request;
    EXPECT_THAT(path.recipients, IsEmpty());
    m_replies.erase(request);
  }
  for (const char* request : {"domain d.example", "mailbox ann@d.example"}) {
    const std::string before = m_replies[request];
    m_replies[request] = "TEMP unknown";
    EXPECT_THAT(pathOf("ann@d.example").recipients,
                ElementsAre(MailRecipient{"ann@d.example", Fate::Waits}))
        << request;
    m_replies[request] = before;
  }
  // A mail server takes it for a fault that will be fixed.
  m_replies["alias ann@d.example"] = "PERM this alias reaches nobody";
  EXPECT_EQ(pathOf("ann@d.example").fate, Fate::Waits);
}

TEST_F(MailPathTest, NamedTablesAreAskedAndUsersOfAll) {
  m_replies["alias.sales team@d.example"] = "OK ann@d.example";
  const MailPath path = pathOf("team@d.example", "sales");
  EXPECT_THAT(path.steps,
              ElementsAre(MailStep{"mask_private.sales", "team@d.example", "NOTFOUND "},
                          MailStep{"alias.sales", "team@d.example", "OK ann@d.example"}));
  EXPECT_EQ(path.fate, Fate::Mailbox);
}

}  // namespace
}  // namespace Tessel::Serve
