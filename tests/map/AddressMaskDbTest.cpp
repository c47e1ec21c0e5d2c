// Tests of the mask table handle.
#include "AddressMaskDb.h"

#include <atomic>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "map/FakeStore.h"

namespace Tessel {
namespace {

using testing::ElementsAre;
using Testing::FakeMaskTable;
using Testing::handleOver;

TEST(AddressMaskDb, ForwardsEveryOperation) {
  std::atomic<int> destroyed{0};
  auto* const table = new FakeMaskTable(destroyed);
  AddressMaskDb handle = handleOver(table);
  const EmailAddress bob = EmailAddress::rfc5321Parse("bob@d.example", false);
  std::map<EmailAddress, EmailAddress> entries;
  EXPECT_EQ(handle.findPublicAddress(bob), bob);
  EXPECT_EQ(handle.findPrivateAddress(bob), bob);
  handle.findByMaskedDomain("d.example", entries);
  handle.exportToFile("out");
  handle.importFromFile("in");
  EXPECT_EQ(handle.impl(), table);
  EXPECT_THAT(table->m_calls,
              ElementsAre("findPublicAddress bob@d.example", "findPrivateAddress bob@d.example",
                          "findByMaskedDomain d.example", "exportToFile out", "importFromFile in"));
}

TEST(AddressMaskDb, CopiesShareTheTableAndTheLastOneDestroysIt) {
  std::atomic<int> destroyed{0};
  {
    AddressMaskDb first = handleOver(new FakeMaskTable(destroyed));
    AddressMaskDb second;
    second = first;
    first = AddressMaskDb();
    const AddressMaskDb& itself = second;
    second = itself;
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_EQ(destroyed, 1);
}

}  // namespace
}  // namespace Tessel
