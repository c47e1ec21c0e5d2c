// What the exceptions of the address library say, in full.
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "address/EmailAddress.h"
#include "tests/address/EmailAddressTestSupport.h"

namespace Tessel {
namespace {

template <class Operation>
void s_expectThrown(const Operation& operation, const char* context, const std::string& detail) {
  const auto got = thrownBy(operation);
  ASSERT_TRUE(got);
  EXPECT_EQ(got->context(), context);
  EXPECT_EQ(got->code(), 4);
  EXPECT_STREQ(got->file(), "EmailAddress");
  EXPECT_EQ(got->stringParameter(), detail);
  EXPECT_EQ(got->cause(), nullptr);
}

TEST(EmailAddressFault, Rfc5321ParseSaysWhere) {
  s_expectThrown([] { EmailAddress::rfc5321Parse(" a..b@example.com ", false); },
                 "EmailAddress::rfc5321Parse",
                 "Two dots in a row in the local part: \"a..b@example.com\"");
}

TEST(EmailAddressFault, Rfc5322ParseSaysWhere) {
  s_expectThrown([] { EmailAddress::rfc5322Parse(" Mary <@a:b@c> ", false); },
                 "EmailAddress::rfc5322Parse", "A source route is not accepted: \"Mary <@a:b@c>\"");
}

TEST(EmailAddressFault, Rfc5322ParseSetSaysWhereAndShowsTheItem) {
  s_expectThrown([] { EmailAddress::rfc5322ParseSet("a@b, \"x,y\" <c@d, e@f", false, false); },
                 "EmailAddress::rfc5322ParseSet",
                 "The angle bracket is not closed behind the address: \"\"x,y\" <c@d\"");
}

TEST(EmailAddressFault, Rfc5322ParseSetShowsTheGroupThatIsNotClosed) {
  s_expectThrown([] { EmailAddress::rfc5322ParseSet("z@z, Team: a@b, c@d", false, true); },
                 "EmailAddress::rfc5322ParseSet",
                 "The group is not closed by a semicolon: \"Team: a@b, c@d\"");
}

TEST(EmailAddressFault, CreateSaysWhere) {
  s_expectThrown([] { EmailAddress::create("anna", "exa mple", false); }, "EmailAddress::create",
                 "Character \" \" is not allowed in the domain: \"anna@exa mple\"");
}

TEST(EmailAddressFault, EachOperationNamesTheLineWhereItThrows) {
  const auto line = [](auto operation) { return thrownBy(operation).value().line(); };
  const std::set<int> lines = {line([] { EmailAddress::rfc5321Parse("a", false); }),
                               line([] { EmailAddress::rfc5322Parse("a", false); }),
                               line([] { EmailAddress::rfc5322ParseSet("a", false, false); }),
                               line([] { EmailAddress::create("a", "", false); })};
  EXPECT_EQ(lines.size(), 4U);
  EXPECT_GT(*lines.begin(), 1);
}

TEST(EmailAddressFault, ControlCharactersAndInvalidBytesAreShownEscaped) {
  s_expectThrown([] { EmailAddress::rfc5321Parse("a\n\x1b[2J\xff\xc2\x85@b", false); },
                 "EmailAddress::rfc5321Parse",
                 "A control character in the local part: \"a\\x0a\\x1b[2J\\xff\\xc2\\x85@b\"");
}

TEST(EmailAddressFault, TheCharacterIsNamedEvenIfItIsOnlyOneByteOfIt) {
  s_expectThrown([] { EmailAddress::rfc5321Parse("a@[x]b\xc3\xb6", false); },
                 "EmailAddress::rfc5321Parse",
                 "Text after the address literal: \"a@[x]b\xc3\xb6\"");
}

TEST(EmailAddressFault, LongTextIsCutAfterOneHundredBytes) {
  s_expectThrown([] { EmailAddress::rfc5321Parse(repeatedText("x", 10000), false); },
                 "EmailAddress::rfc5321Parse",
                 "The \"@\" is missing: \"" + repeatedText("x", 100) + "...\"");
}

TEST(EmailAddressFault, LongTextIsNotCutInsideACharacter) {
  s_expectThrown([] { EmailAddress::rfc5321Parse("x" + repeatedText("\xe2\x82\xac", 50), false); },
                 "EmailAddress::rfc5321Parse",
                 "The \"@\" is missing: \"x" + repeatedText("\xe2\x82\xac", 33) + "...\"");
}

TEST(EmailAddressFault, LongTextIsNotCutInsideAnEscape) {
  s_expectThrown(
      [] { EmailAddress::rfc5321Parse("xx" + repeatedText("\x01", 50), false); },
      "EmailAddress::rfc5321Parse",
      "A control character in the local part: \"xx" + repeatedText("\\x01", 24) + "...\"");
}

TEST(EmailAddressFault, TextOfExactlyOneHundredBytesIsShownWhole) {
  s_expectThrown([] { EmailAddress::rfc5321Parse(repeatedText("x", 100), false); },
                 "EmailAddress::rfc5321Parse",
                 "The \"@\" is missing: \"" + repeatedText("x", 100) + "\"");
}

}  // namespace
}  // namespace Tessel
