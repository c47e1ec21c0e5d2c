// What the tool does not write into a table.
#include "tables/WriteRule.h"

#include <string>

#include <gtest/gtest.h>

namespace Tessel::Tool {
namespace {

// True when `member` may be written into the row of an alias of d.example.
bool s_isAllowed(const std::string& member, LocalNames localNames = LocalNames::Refuse) {
  const EmailAddress alias = EmailAddress::rfc5321Parse("a@d.example", false);
  return !refusalOfMember(EmailAddress::rfc5322Parse(member, true), alias, localNames);
}

TEST(WriteRule, AMemberWithoutADomainIsRefusedWhateverItIsWrittenAs) {
  for (const char* member :
       {"root", "<|prog>", "(x)|prog", "\"|prog x\"", "/etc/passwd", "allusers_other.example"}) {
    EXPECT_FALSE(s_isAllowed(member)) << member;
    EXPECT_TRUE(s_isAllowed(member, LocalNames::Allow)) << member;
  }
  EXPECT_TRUE(s_isAllowed("root@d.example"));
  EXPECT_TRUE(s_isAllowed("allusers_d.example"));
  EXPECT_TRUE(s_isAllowed("ALLUSERS_D.example"));
}

TEST(WriteRule, AnAddressLiteralWithACommaIsRefused) {
  for (const LocalNames localNames : {LocalNames::Refuse, LocalNames::Allow}) {
    EXPECT_FALSE(s_isAllowed("a@[x:b,evil@evil.example]", localNames));
    EXPECT_TRUE(s_isAllowed("a@[IPv6:::1]", localNames));
    EXPECT_TRUE(s_isAllowed("\"a,b\"@d.example", localNames));
  }
  EXPECT_TRUE(refusalOf(EmailAddress::rfc5321Parse("a@[x:b,c]", false)));
  EXPECT_FALSE(refusalOf(EmailAddress::rfc5321Parse("a@[x:b]", false)));
}

}  // namespace
}  // namespace Tessel::Tool
