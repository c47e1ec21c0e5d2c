// Whom the service leaves out of answers.
#include "serve/answer/DisabledUser.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

class LeftOut : public testing::Test {
 protected:
  void SetUp() override { publishRows(*m_tables.add("alias"), {{"gone.list@d.example", "x@d"}}); }

  [[nodiscard]] bool isOut(const std::string& address, const Table* expanded = nullptr) const {
    return isDisabledUser(*ServedDomains::image(), address, m_settings) &&
           !goesElsewhere(m_tables, address, expanded, {});
  }

  const ServedDomains m_served;
  Settings m_settings;
  Tables m_tables{m_settings};
};

TEST_F(LeftOut, IsADisabledUserInAnySpelling) {
  EXPECT_TRUE(isOut("gone@d.example"));
  EXPECT_TRUE(isOut("GONE@D.example"));
  for (const char* other : {"bob@d.example", "room@d.example", "nobody@d.example",
                            "gone@other.example", "gone", "", "@d.example"}) {
    EXPECT_FALSE(isOut(other)) << other;
  }
}

TEST_F(LeftOut, IsAnAddressWithAnExtensionAsTheServiceReadsIt) {
  {
    CMF::Writer writer;
    writer.addUser("d.example", "gone+kept", CMF::MailUserMailbox);
    writer.commit();
  }
  EXPECT_TRUE(isOut("gone+tag@d.example"));
  EXPECT_FALSE(isOut("gone-tag@d.example"));
  EXPECT_FALSE(isOut("gone+kept@d.example")) << "another user";
  m_settings.delimiter = "-";
  EXPECT_TRUE(isOut("gone-tag@d.example"));
  m_settings.extension = ExtensionRule::Off;
  EXPECT_FALSE(isOut("gone-tag@d.example"));
}

TEST_F(LeftOut, IsNobodyWhoseMailGoesElsewhereByAnAlias) {
  const TablePointer other = m_tables.add("alias_other");
  EXPECT_FALSE(isOut("gone@d.example")) << "the table may have an alias";
  publishRows(*other, {});
  EXPECT_TRUE(isOut("gone@d.example"));
  publishRows(*other, {{"Gone@d.example", "bob@d.example"}});
  EXPECT_FALSE(isOut("gone@d.example"));
  EXPECT_FALSE(isOut("gone+tag@d.example"));
  // Who is reached by the aliases of the table and has one there is his own member.
  EXPECT_TRUE(isOut("gone@d.example", other.get()));
  EXPECT_FALSE(isOut("gone+tag@d.example", other.get()));
}

TEST_F(LeftOut, IsNobodyWhereAllUsersGetMail) {
  const ConfigurationImage users(std::string_view("dd.example\0mbob\0", 16));
  EXPECT_FALSE(isDisabledUser(users, "bob@d.example", m_settings));
}

}  // namespace
}  // namespace Tessel::Serve
