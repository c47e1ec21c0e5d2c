// The tables that policy contexts name, and when their content is another one.
#include "serve/answer/PolicyTables.h"

#include <gtest/gtest.h>

#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

class PolicyTablesTest : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"alias", "mask", "alias_x", "rules"})
      publishRows(*m_tables.add(name), {});
  }
  std::uint64_t number(const char* context = "") {
    return m_policies.refresh(context, Clock::now()).number;
  }
  std::string why(const char* context) { return m_policies.refresh(context, Clock::now()).why; }

  Settings m_settings;
  Tables m_tables{m_settings};
  CurrentRules m_rules{m_tables};
  PolicyTables m_policies{m_tables, m_rules};
};

TEST_F(PolicyTablesTest, AContextNamesMapsOfAliases) {
  const auto sources = [this](const char* text) {
    std::string names;
    const auto& context = m_policies.refresh(text, Clock::now());
    for (const auto& source : context.data.sources) names += source.table->sqlName() + " ";
    return names;
  };
  EXPECT_EQ(sources(""), "alias ");
  EXPECT_EQ(sources("alias"), "alias ");
  EXPECT_EQ(sources("alias.x,alias"), "alias_x alias ");
  EXPECT_EQ(sources(" alias:x\talias , "), "alias_x alias ");
  EXPECT_EQ(why("alias.none"), "there is no table alias_none");
  EXPECT_EQ(why("alias mask_public"), "policy_context names no tables of aliases");
}

TEST_F(PolicyTablesTest, EachContentHasANumberOfItsOwn) {
  const std::uint64_t first = number();
  EXPECT_EQ(number(), first);
  EXPECT_NE(number("alias.x"), first);
  m_policies.sweep();
  EXPECT_EQ(number(), first);
  std::uint64_t last = first;
  const auto expectAnother = [&](const char* what) {
    EXPECT_GT(number(), last) << what;
    last = number();
    EXPECT_EQ(number(), last) << what;
  };
  publishRows(*m_tables.find("alias"), {});
  expectAnother("aliases");
  publishRows(*m_tables.find("mask"), {});
  expectAnother("masks");
  publishRows(*m_tables.find("rules"), {});
  expectAnother("rules");
  m_tables.find("rules")->setState(TableState::Missing);
  expectAnother("rules that are missing");
  m_tables.configuration().publish(ServedDomains().image(), Clock::now());
  expectAnother("users");
}

TEST_F(PolicyTablesTest, ATableThatIsUnableIsTheReason) {
  m_tables.find("mask")->setState(TableState::Empty);
  EXPECT_EQ(why(""), "mask: the table has lost all its rows");
  // There are no masks of that name.
  EXPECT_EQ(why("alias.x"), "");
  m_tables.find("rules")->setState(TableState::Missing);
  EXPECT_EQ(why("alias.x"), "");
  EXPECT_NE(m_policies.refresh("alias.x", Clock::now()).data.whyNoRules, "");
}

TEST_F(PolicyTablesTest, NotMoreThan64ContextsAreRemembered) {
  const std::uint64_t first = number();
  for (int i = 1; i < 64; ++i) m_policies.refresh("x" + std::to_string(i), Clock::now());
  EXPECT_EQ(number(), first);
  m_policies.refresh("x64", Clock::now());
  EXPECT_GT(number(), first);
}

}  // namespace
}  // namespace Tessel::Serve
