// Tests of the functor over alias rows; reading a row is tested with the table.
#include "alias/AddressAliasRow.h"

#include <algorithm>
#include <list>

#include <gtest/gtest.h>

#include "support/MapDatabase.h"

namespace Tessel {
namespace {

TEST(AddressAliasRow, AFreshRowIsEmpty) {
  const AddressAliasRow row;
  EXPECT_TRUE(row.alias().isNull());
  EXPECT_TRUE(row.members().empty());
}

TEST(AdapterAliasRowToEntryContainer, TheLastRowOfAnAliasWinsAndOthersStay) {
  const EmailAddress other = EmailAddress::rfc5321Parse("other@d.example", false);
  std::map<EmailAddress, std::set<EmailAddress>> entries;
  entries[EmailAddress()].insert(other);
  entries[other].insert(other);
  // Fresh rows have the null address and no members.
  const std::list<Ref<Database::RowImpl>> rows{Ref<Database::RowImpl>(new AddressAliasRow),
                                               Ref<Database::RowImpl>(new AddressAliasRow)};
  std::for_each(rows.begin(), rows.end(), AdapterAliasRowToEntryContainer(entries));
  EXPECT_EQ(entries.size(), 2U);
  EXPECT_TRUE(entries[EmailAddress()].empty());
  EXPECT_EQ(entries[other].size(), 1U);
}

}  // namespace
}  // namespace Tessel
