// Tests of the alias table handle.
#include "AddressAliasDb.h"

#include <atomic>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "map/FakeStore.h"

namespace Tessel {
namespace {

using testing::ElementsAre;
using Testing::FakeAliasTable;
using Testing::handleOver;

TEST(AddressAliasDb, ForwardsEveryOperation) {
  std::atomic<int> destroyed{0};
  auto* const table = new FakeAliasTable(destroyed);
  AddressAliasDb handle = handleOver(table);
  const EmailAddress bob = EmailAddress::rfc5321Parse("bob@d.example", false);
  std::set<EmailAddress> names;
  EXPECT_THAT(handle.expandAlias(bob), ElementsAre(bob));
  handle.getAliasNames(names);
  handle.exportToFile("out");
  handle.importFromFile("in");
  EXPECT_EQ(names.size(), 1U);
  EXPECT_EQ(handle.impl(), table);
  EXPECT_THAT(table->m_calls, ElementsAre("expandAlias bob@d.example", "getAliasNames",
                                          "exportToFile out", "importFromFile in"));
}

TEST(AddressAliasDb, CopiesShareTheTableAndTheLastOneDestroysIt) {
  std::atomic<int> destroyed{0};
  {
    AddressAliasDb first = handleOver(new FakeAliasTable(destroyed));
    AddressAliasDb second(first);
    EXPECT_EQ(first.impl(), second.impl());
    first = AddressAliasDb();
    const AddressAliasDb& itself = second;
    second = itself;
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_EQ(destroyed, 1);
}

TEST(AddressAliasDb, ADefaultHandleMayBeCopiedAndAssigned) {
  std::atomic<int> destroyed{0};
  const AddressAliasDb none;
  AddressAliasDb target = handleOver(new FakeAliasTable(destroyed));
  target = none;
  EXPECT_EQ(destroyed, 1);
  const AddressAliasDb copy(target);
}

TEST(AddressAliasDb, AHandleOverANullTableMayBeCopied) {
  const AddressAliasDb empty = handleOver(static_cast<AddressAliasDbImpl*>(nullptr));
  const AddressAliasDb copy(empty);
  EXPECT_EQ(copy.impl(), nullptr);
}

}  // namespace
}  // namespace Tessel
