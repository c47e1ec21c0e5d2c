// Tests of the functors over mask rows; reading a row is tested with the table.
#include "mask/AddressMaskRow.h"

#include <gtest/gtest.h>

namespace Tessel {
namespace {

TEST(AddressMaskRow, AFreshRowIsEmpty) {
  const Database::AddressMaskRow row;
  EXPECT_TRUE(row.privateAddress().isNull());
  EXPECT_TRUE(row.publicAddress().isNull());
}

TEST(AdapterMaskRow, FunctorsOverwriteTheEntryOfTheSameKeyAndKeepOthers) {
  const EmailAddress other = EmailAddress::rfc5321Parse("other@d.example", false);
  const Ref<Database::RowImpl> row(new Database::AddressMaskRow);
  std::map<EmailAddress, EmailAddress> entries{{EmailAddress(), other}, {other, other}};
  AdapterMaskRowToEntryContainer{entries}(row);
  EXPECT_EQ(entries.size(), 2U);
  EXPECT_TRUE(entries[EmailAddress()].isNull());
  std::map<std::string, std::string> domains{{"", "old"}, {"a", "b"}};
  AdapterMaskRowToWildCardContainer{domains}(row);
  EXPECT_EQ(domains, (std::map<std::string, std::string>{{"", ""}, {"a", "b"}}));
}

}  // namespace
}  // namespace Tessel
