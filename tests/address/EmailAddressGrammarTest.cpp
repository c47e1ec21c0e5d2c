// The pieces of address syntax: UTF-8, domains and address literals, seen through the parsers.
#include <string>

#include <gtest/gtest.h>

#include "address/EmailAddress.h"
#include "tests/address/EmailAddressTestSupport.h"

namespace Tessel {
namespace {

struct DomainCase {
  const char* name;
  std::string domain;
};

void PrintTo(const DomainCase& domain, std::ostream* stream) {
  *stream << domain.name;
}

class AcceptedDomain : public ::testing::TestWithParam<DomainCase> {};

TEST_P(AcceptedDomain, IsKeptAsGiven) {
  const std::string& domain = GetParam().domain;
  expectAccepted({"", Parser::rfc5321, false, "a@" + domain, "a", domain, "a@" + domain});
}

const DomainCase s_domains[] = {
    {"OneLabel", "localhost"},
    {"OneLetter", "b"},
    {"Digits", "123.example"},
    {"DigitsOnly", "1.2.3.4"},
    {"HyphenInside", "b-c.d--e"},
    {"Underscore", "_dmarc.b_c.example_"},
    {"CapitalsAreKept", "ExAmPlE.ORG"},
    {"Punycode", "xn--fsqu00a.xn--0zwm56d"},
    {"Label63", repeatedText("a", 63) + ".example"},
    {"Domain252", repeatedText("abcdefghi.", 25) + "yz"},
    {"Utf8Two",
     "b\xc3\xbc"
     "cher.example"},
    {"Utf8Three", "\xe4\xbe\x8b\xe5\xad\x90"},
    {"Utf8Four", "\xf0\x9f\x90\xb1.example"},
    {"Utf8First", "\xc2\xa0.example"},
    {"Utf8Last", "\xf4\x8f\xbf\xbf.example"},
    {"Utf8BelowSurrogates", "\xed\x9f\xbf"},
    {"Utf8AboveSurrogates", "\xee\x80\x80"},
    {"Utf8FirstOfThree", "\xe0\xa0\x80"},
    {"Utf8FirstOfFour", "\xf0\x90\x80\x80"},
    {"Utf8Label63", repeatedText("\xe4\xbe\x8b", 21)},
    {"Ipv4", "[127.0.0.1]"},
    {"Ipv4Greatest", "[255.255.255.255]"},
    {"Ipv4LeadingZeros", "[010.001.000.099]"},
    {"Ipv6Full", "[IPv6:2001:db8:0:1:2:3:4:5]"},
    {"Ipv6TagInSmallLetters", "[ipv6:::1]"},
    {"Ipv6HexDigits", "[IPv6:ABCD:ef01:2345:6789:aBcD:EF:0:1]"},
    {"Ipv6Unspecified", "[IPv6:::]"},
    {"Ipv6Loopback", "[IPv6:::1]"},
    {"Ipv6GapInside", "[IPv6:2001:db8::1]"},
    {"Ipv6GapAtEnd", "[IPv6:2001:db8::]"},
    {"Ipv6GapOfTwo", "[IPv6:1:2:3::4:5:6]"},
    {"Ipv6GapFirstSixBehind", "[IPv6:::1:2:3:4:5:6]"},
    {"Ipv6WithIpv4", "[IPv6:0:0:0:0:0:ffff:192.0.2.1]"},
    {"Ipv6GapWithIpv4", "[IPv6:::ffff:192.0.2.1]"},
    {"Ipv6GapAndIpv4Only", "[IPv6:::192.0.2.1]"},
    {"Ipv6GapInsideWithIpv4", "[IPv6:1:2::3:4:192.0.2.1]"},
    {"General", "[x400:c=de;a=_;o=z]"},
    {"GeneralTagWithHyphen", "[a-b-1:!]"},
    {"GeneralAllContent", "[t:!\"#$%&'()*+,-./:;<=>?@AZ^_`az{|}~]"},
};
INSTANTIATE_TEST_SUITE_P(Domains, AcceptedDomain, ::testing::ValuesIn(s_domains),
                         caseName<DomainCase>);

class RefusedDomain : public ::testing::TestWithParam<RefusedCase> {};

TEST_P(RefusedDomain, ThrowsTheReason) {
  expectRefused(GetParam());
}

RefusedCase s_case(const char* name, const std::string& domain, const char* reason) {
  return {name, Parser::rfc5321, false, "a@" + domain, reason};
}

const RefusedCase s_refused[] = {
    s_case("DotFirst", ".b", "The domain begins with a dot"),
    s_case("DotLast", "b.", "The domain ends with a dot"),
    s_case("DotAlone", ".", "The domain begins with a dot"),
    s_case("TwoDots", "b..c", "Two dots in a row in the domain"),
    s_case("HyphenFirst", "-b.c", "begins with a hyphen"),
    s_case("HyphenFirstInSecondLabel", "b.-c", "begins with a hyphen"),
    s_case("HyphenLast", "b-", "ends with a hyphen"),
    s_case("HyphenLastInFirstLabel", "b-.c", "ends with a hyphen"),
    s_case("HyphenAlone", "-", "begins with a hyphen"),
    s_case("Label64", repeatedText("a", 64) + ".b", "longer than 63 octets"),
    s_case("Label64Last", "b." + repeatedText("a", 64), "longer than 63 octets"),
    s_case("Utf8Label64", repeatedText("\xe4\xbe\x8b", 21) + "a", "longer than 63 octets"),
    s_case("Domain253", repeatedText("abcdefghi.", 25) + "xyz", "The address is longer than 254"),
    s_case("TenThousand", repeatedText("b", 10000), "longer than 63 octets"),
    s_case("TenThousandLabels", repeatedText("b.", 10000) + "c", "longer than 255 octets"),
    s_case("Star", "*.example", "Character \"*\" is not allowed in the domain"),
    s_case("Slash", "b/c", "Character \"/\" is not allowed in the domain"),
    s_case("Quote", "\"b\"", "Character \"\"\" is not allowed in the domain"),
    s_case("Backslash", "b\\c", "Character \"\\\" is not allowed in the domain"),
    s_case("Apostrophe", "b'c", "Character \"'\" is not allowed in the domain"),
    s_case("Control", "b\x01", "A control character in the domain"),
    s_case("Delete", "b\x7f", "A control character in the domain"),
    s_case("LineFeed", "b\nc", "A control character in the domain"),
    s_case("C1First", "b\xc2\x80", "A control character in the domain"),
    s_case("C1Last",
           "b\xc2\x9f"
           "c",
           "A control character in the domain"),
    s_case("OverlongTwo", "\xc0\xaf", "Invalid UTF-8 in the domain"),
    s_case("OverlongTwoNext", "\xc1\xbf", "Invalid UTF-8 in the domain"),
    s_case("OverlongThree", "\xe0\x9f\xbf", "Invalid UTF-8 in the domain"),
    s_case("OverlongFour", "\xf0\x8f\xbf\xbf", "Invalid UTF-8 in the domain"),
    s_case("SurrogateFirst", "\xed\xa0\x80", "Invalid UTF-8 in the domain"),
    s_case("SurrogateLast", "\xed\xbf\xbf", "Invalid UTF-8 in the domain"),
    s_case("AboveUnicode", "\xf4\x90\x80\x80", "Invalid UTF-8 in the domain"),
    s_case("LeadF5", "\xf5\x80\x80\x80", "Invalid UTF-8 in the domain"),
    s_case("LeadFf", "\xff", "Invalid UTF-8 in the domain"),
    s_case("ContinuationAlone", "b\x80", "Invalid UTF-8 in the domain"),
    s_case("CutAfterOne", "b\xe4", "Invalid UTF-8 in the domain"),
    s_case("CutAfterTwo", "b\xe4\xbe", "Invalid UTF-8 in the domain"),
    s_case("CutByLetter",
           "b\xe4\xbe"
           "z",
           "Invalid UTF-8 in the domain"),
    s_case("CutFour", "b\xf0\x9f\x90", "Invalid UTF-8 in the domain"),
    s_case("LiteralEmpty", "[]", "neither an IPv4 address nor a tag"),
    s_case("LiteralNotClosed", "[127.0.0.1", "is not closed"),
    s_case("LiteralOpenedOnly", "[", "is not closed"),
    s_case("LiteralTextBehind", "[127.0.0.1].b", "Text after the address literal"),
    s_case("LiteralClosedTwice", "[127.0.0.1]]", "Text after the address literal"),
    s_case("LiteralInsideDomain", "b.[127.0.0.1]", "Character \"[\" is not allowed"),
    s_case("LiteralName", "[example.com]", "neither an IPv4 address nor a tag"),
    s_case("Ipv4Part256", "[127.0.0.256]", "neither an IPv4 address nor a tag"),
    s_case("Ipv4ThreeParts", "[127.0.1]", "neither an IPv4 address nor a tag"),
    s_case("Ipv4FiveParts", "[127.0.0.0.1]", "neither an IPv4 address nor a tag"),
    s_case("Ipv4FourDigits", "[0127.0.0.1]", "neither an IPv4 address nor a tag"),
    s_case("Ipv4EmptyPart", "[127..0.1]", "neither an IPv4 address nor a tag"),
    s_case("Ipv4Blank", "[127.0.0.1 ]", "neither an IPv4 address nor a tag"),
    s_case("Ipv6WithoutTag", "[::1]", "neither an IPv4 address nor a tag"),
    s_case("Ipv6Empty", "[IPv6:]", "not an IPv6 address"),
    s_case("Ipv6SevenGroups", "[IPv6:1:2:3:4:5:6:7]", "not an IPv6 address"),
    s_case("Ipv6NineGroups", "[IPv6:1:2:3:4:5:6:7:8:9]", "not an IPv6 address"),
    s_case("Ipv6GapOfOne", "[IPv6:1:2:3::5:6:7:8]", "not an IPv6 address"),
    s_case("Ipv6GapOfNone", "[IPv6:1:2:3:4::5:6:7:8]", "not an IPv6 address"),
    s_case("Ipv6TwoGaps", "[IPv6:1::2::3]", "not an IPv6 address"),
    s_case("Ipv6ThreeColons", "[IPv6:1:::2]", "not an IPv6 address"),
    s_case("Ipv6FiveDigits", "[IPv6:12345::1]", "not an IPv6 address"),
    s_case("Ipv6NoHexDigit", "[IPv6:g::1]", "not an IPv6 address"),
    s_case("Ipv6ColonFirst", "[IPv6::1:2:3:4:5:6:7]", "not an IPv6 address"),
    s_case("Ipv6ColonLast", "[IPv6:1:2:3:4:5:6:7:]", "not an IPv6 address"),
    s_case("Ipv6Ipv4First", "[IPv6:192.0.2.1::1]", "not an IPv6 address"),
    s_case("Ipv6Ipv4InTheMiddle", "[IPv6:::192.0.2.1:1]", "not an IPv6 address"),
    s_case("Ipv6Ipv4Bad", "[IPv6:::192.0.2.256]", "not an IPv6 address"),
    s_case("Ipv6SevenGroupsAndIpv4", "[IPv6:1:2:3:4:5:6:7:192.0.2.1]", "not an IPv6 address"),
    s_case("Ipv6GapFiveGroupsAndIpv4", "[IPv6:1:2:3::4:5:192.0.2.1]", "not an IPv6 address"),
    s_case("Ipv6Zone", "[IPv6:fe80::1%eth0]", "not an IPv6 address"),
    s_case("GeneralNoContent", "[tag:]", "neither an IPv4 address nor a tag"),
    s_case("GeneralNoTag", "[:content]", "neither an IPv4 address nor a tag"),
    s_case("GeneralTagHyphenLast", "[tag-:content]", "neither an IPv4 address nor a tag"),
    s_case("GeneralTagUnderscore", "[t_g:content]", "neither an IPv4 address nor a tag"),
    s_case("GeneralBlank", "[tag:a b]", "neither an IPv4 address nor a tag"),
    s_case("GeneralBackslash", "[tag:a\\b]", "neither an IPv4 address nor a tag"),
    s_case("GeneralBracket", "[tag:a[b]", "neither an IPv4 address nor a tag"),
    s_case("GeneralUtf8", "[tag:\xc3\xb6]", "neither an IPv4 address nor a tag"),
};
INSTANTIATE_TEST_SUITE_P(Domains, RefusedDomain, ::testing::ValuesIn(s_refused),
                         caseName<RefusedCase>);

// Every byte on its own, in each place, against the classes of RFC 5321 written out by hand.
TEST(EmailAddressGrammar, EverySingleByteIsJudgedAsTheGrammarSays) {
  const std::string atext =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789!#$%&'*+-/=?^_`{|}~";
  const std::string label = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
  for (int byte = 1; byte < 256; ++byte) {
    const std::string c(1, static_cast<char>(byte));
    const auto accepts = [](const std::string& text) {
      return !thrownBy([&] { EmailAddress::rfc5321Parse(text, false); });
    };
    EXPECT_EQ(accepts("x" + c + "x@b"), atext.find(c) != std::string::npos || c == ".") << byte;
    EXPECT_EQ(accepts("\"x" + c + "x\"@b"), byte >= 0x20 && byte < 0x7f && c != "\"") << byte;
    EXPECT_EQ(accepts("\"x\\" + c + "x\"@b"), byte >= 0x20 && byte < 0x7f) << byte;
    EXPECT_EQ(accepts("a@x" + c + "x"), label.find(c) != std::string::npos || c == ".") << byte;
  }
}

}  // namespace
}  // namespace Tessel
