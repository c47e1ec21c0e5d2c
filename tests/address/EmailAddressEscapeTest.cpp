// Escaping for SQL literals: every character of the table, and addresses.
#include "address/EmailAddressEscape.h"

#include <string>

#include <gtest/gtest.h>

#include "address/EmailAddress.h"
#include "tests/address/EmailAddressTestSupport.h"

namespace Tessel {
namespace {

struct EscapeCase {
  const char* name;
  std::string text;
  std::string want;
};

void PrintTo(const EscapeCase& escape, std::ostream* stream) {
  *stream << escape.name;
}

class EscapedText : public ::testing::TestWithParam<EscapeCase> {};

TEST_P(EscapedText, IsAsTheMySqlClientWritesIt) {
  EXPECT_EQ(emailAddressEscape(GetParam().text), GetParam().want);
}

const EscapeCase s_escapes[] = {
    {"Nothing", "", ""},
    {"Apostrophe", "a'b", R"(a\'b)"},
    {"Quote", "a\"b", R"(a\"b)"},
    {"Backslash", R"(a\b)", R"(a\\b)"},
    {"Nul", std::string("a\0b", 3), R"(a\0b)"},
    {"LineFeed", "a\nb", R"(a\nb)"},
    {"CarriageReturn", "a\rb", R"(a\rb)"},
    {"ControlZ",
     "a\x1a"
     "b",
     R"(a\Zb)"},
    {"TabAndOtherControlsStay", "a\t\x01\x7f", "a\t\x01\x7f"},
    {"WildcardsStay", "a%b_c*", "a%b_c*"},
    {"Utf8Stays", "\xc3\xa7\xe2\x82\xac\xf0\x9f\x90\xb1", "\xc3\xa7\xe2\x82\xac\xf0\x9f\x90\xb1"},
    {"AllInARow", R"('"\)", R"(\'\"\\)"},
};
INSTANTIATE_TEST_SUITE_P(Table, EscapedText, ::testing::ValuesIn(s_escapes), caseName<EscapeCase>);

TEST(EmailAddressEscape, EscapesNoOtherByte) {
  const std::string escaped("\0\n\r\x1a\"'\\", 7);
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    EXPECT_EQ(emailAddressEscapeLetter(c) != '\0', escaped.find(c) != std::string::npos) << byte;
  }
}

TEST(EmailAddressEscapedWrite, EscapesTheTextOfTheAddress) {
  const auto escaped = [](const char* local) {
    return emailAddressEscapedWrite(EmailAddress::create(local, "example.com", false));
  };
  EXPECT_EQ(escaped("anna"), "anna@example.com");
  EXPECT_EQ(escaped("o'brien"), R"(o\'brien@example.com)");
  EXPECT_EQ(escaped("a b"), R"(\"a b\"@example.com)");
  EXPECT_EQ(escaped("a\"b"), R"(\"a\\\"b\"@example.com)");
  EXPECT_EQ(escaped("a\\"), R"(\"a\\\\\"@example.com)");
  EXPECT_EQ(escaped("' or 1=1 -- "), R"(\"\' or 1=1 -- \"@example.com)");
}

TEST(EmailAddressEscapedWrite, IsEmptyForTheNullAddress) {
  EXPECT_EQ(emailAddressEscapedWrite(EmailAddress()), "");
}

}  // namespace
}  // namespace Tessel
