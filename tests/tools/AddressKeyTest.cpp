// Keys of addresses: what is equal for every mail server, what differs, and what is not an address.
#include "tables/AddressKey.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <unicode/unistr.h>

namespace Tessel::Tool {
namespace {

// The key, or nothing.
std::optional<std::string> s_key(std::string_view text) {
  std::string key = "left over from before";
  if (!addressKey(text, key)) return std::nullopt;
  return key;
}

std::optional<std::string> s_domainKey(std::string_view text) {
  std::string key = "left over from before";
  if (!domainKey(text, key)) return std::nullopt;
  return key;
}

const std::optional<std::string> s_none;

struct Case {
  const char* name;
  std::string text;
  std::optional<std::string> key;
};

void PrintTo(const Case& param, std::ostream* stream) {
  *stream << testing::PrintToString(param.text);
}

std::string s_nameOf(const testing::TestParamInfo<Case>& param) {
  return param.param.name;
}

class AddressKeyOf : public testing::TestWithParam<Case> {};

TEST_P(AddressKeyOf, IsTheSameHoweverItIsSpelled) {
  EXPECT_EQ(s_key(GetParam().text), GetParam().key);
}

INSTANTIATE_TEST_SUITE_P(
    Plain, AddressKeyOf,
    testing::Values(Case{"Small", "ann@example.com", "ann@example.com"},
                    Case{"Capitals", "ANN.Lee+X_y-z=1@Example.COM", "ann.lee+x_y-z=1@example.com"},
                    Case{"Atext", "A!#$%&'*/?^`{|}~b@D", "a!#$%&'*/?^`{|}~b@d"},
                    Case{"OneLabel", "ann@Localhost", "ann@localhost"},
                    Case{"Underscore", "ann@a_b.example", "ann@a_b.example"},
                    Case{"Dots", ".a..b.@d", ".a..b.@d"},
                    Case{"LiteralV4", "Ann@[192.0.2.1]", "ann@[192.0.2.1]"},
                    Case{"LiteralV6", "ann@[IPv6:2001:DB8::1]", "ann@[ipv6:2001:db8::1]"},
                    Case{"Punycode", "ann@XN--Bcher-KVA.example", "ann@xn--bcher-kva.example"}),
    s_nameOf);

INSTANTIATE_TEST_SUITE_P(Quotes, AddressKeyOf,
                         testing::Values(Case{"NotNeeded", "\"Ann\"@D", "ann@d"},
                                         Case{"Blank", "\"A b\"@d", "a b@d"},
                                         Case{"BlankWithout", "A b@d", "a b@d"},
                                         Case{"BlanksAround", "\" a \"@d", " a @d"},
                                         Case{"At", "\"a@b\"@d", "a@b@d"},
                                         Case{"PairOfQuote", "\"a\\\"b\"@d", "a\"b@d"},
                                         Case{"QuoteWithout", "a\"b@d", "a\"b@d"},
                                         Case{"PairOfBackslash", "\"a\\\\b\"@d", "a\\b@d"},
                                         Case{"BackslashWithout", "a\\b@d", "a\\b@d"},
                                         Case{"PairNotNeeded", "\"\\a\\@\\b\"@d", "a@b@d"},
                                         Case{"Unicode", "\"\u00c9 X\"@d", "\u00e9 x@d"}),
                         s_nameOf);

INSTANTIATE_TEST_SUITE_P(
    Unicode, AddressKeyOf,
    testing::Values(Case{"Composed", "Gr\u00fc\u00dfe@d", "gr\u00fc\u00dfe@d"},
                    Case{"Small", "gr\u00fc\u00dfe@d", "gr\u00fc\u00dfe@d"},
                    Case{"Decomposed", "Gru\u0308\u00dfe@d", "gr\u00fc\u00dfe@d"},
                    Case{"DecomposedCapital", "GRU\u0308\u00dfE@d", "gr\u00fc\u00dfe@d"},
                    Case{"MarksInOtherOrder", "o\u0302\u0323@d", "\u1ed9@d"},
                    Case{"WithoutCapitals", "\u674e@d", "\u674e@d"},
                    Case{"CapitalSharpS", "STRA\u1e9eE@d", "stra\u00dfe@d"},
                    Case{"Greek", "\u03a3\u03af\u03c3\u03c5\u03c6\u03bf\u03a3@d",
                         "\u03c3\u03af\u03c3\u03c5\u03c6\u03bf\u03c3@d"},
                    Case{"CapitalWithIota", "\u1fbc@d", "\u1fb3@d"},
                    Case{"CapitalThatExistsInPartsOnly", "H\u0331@d", "\u1e96@d"},
                    Case{"BeyondTheFirstPlane", "\U00010400@d", "\U00010428@d"},
                    Case{"Kelvin", "\u212a@d", "k@d"},
                    Case{"Hangul", "\u1100\u1161\u11a8@d", "\uac01@d"},
                    // The capital with a dot is an "I" with a dot above, in one character or two.
                    Case{"DottedI", "\u0130@d", "i\u0307@d"},
                    Case{"DottedIInParts", "I\u0307@d", "i\u0307@d"},
                    Case{"DottedSmallI", "i\u0307@d", "i\u0307@d"}),
    s_nameOf);

INSTANTIATE_TEST_SUITE_P(
    Domains, AddressKeyOf,
    testing::Values(Case{"Unicode", "ann@b\u00fccher.example", "ann@xn--bcher-kva.example"},
                    Case{"Capitals", "ann@B\u00dcCHER.Example", "ann@xn--bcher-kva.example"},
                    Case{"Decomposed", "ann@bu\u0308cher.example", "ann@xn--bcher-kva.example"},
                    Case{"Mixed", "ann@xn--bcher-kva.b\u00fc.example",
                         "ann@xn--bcher-kva.xn--b-eha.example"},
                    // Non-transitional: this is not strasse.example.
                    Case{"SharpS", "ann@stra\u00dfe.example", "ann@xn--strae-oqa.example"},
                    Case{"WideDot", "ann@b\u00fccher\u3002example", "ann@xn--bcher-kva.example"},
                    Case{"WideLetters", "ann@\uff25x.example", "ann@ex.example"}),
    s_nameOf);

INSTANTIATE_TEST_SUITE_P(
    NoAddress, AddressKeyOf,
    testing::Values(
        Case{"Empty", "", s_none}, Case{"AtAlone", "@", s_none}, Case{"NoAt", "ann", s_none},
        Case{"NoLocal", "@d", s_none}, Case{"NoDomain", "ann@", s_none},
        Case{"TwoAts", "a@b@d", s_none}, Case{"TwoAtsTogether", "a@@d", s_none},
        Case{"AtBehindQuotes", "\"a\"@b@d", s_none}, Case{"EmptyQuotes", "\"\"@d", s_none},
        Case{"OpenQuote", "\"ann@d", s_none}, Case{"QuoteAlone", "\"", s_none},
        Case{"BackslashAtEnd", "\"\\", s_none}, Case{"OpenAfterPair", "\"a\\\"@d", s_none},
        Case{"TextBehindQuotes", "\"a\"b@d", s_none}, Case{"NoAtBehindQuotes", "\"a@d\"", s_none},
        Case{"Tab", "a\tb@d", s_none}, Case{"TabInQuotes", "\"a\tb\"@d", s_none},
        Case{"NewlineInPair", "\"a\\\nb\"@d", s_none}, Case{"Delete", "a\x7f@d", s_none},
        Case{"Nul", std::string("a\0b@d", 5), s_none}, Case{"C1", "a\u0085@d", s_none},
        Case{"C1InDomain", "a@\u0085.d", s_none}, Case{"NewlineInDomain", "a@d\n", s_none},
        Case{"NewlineInIdn", "a@b\u00fc\n", s_none}, Case{"CutUtf8", "a\xc3@d", s_none},
        Case{"LoneContinuation", "a\x80@d", s_none}, Case{"Overlong", "a\xc0\xaf@d", s_none},
        Case{"Surrogate", "a\xed\xa0\x80@d", s_none},
        Case{"BeyondUnicode", "a\xf4\x90\x80\x80@d", s_none},
        Case{"BrokenDomain", "a@\xc3.d", s_none}, Case{"DotAtEnd", "a@d.", s_none},
        Case{"DotAtStart", "a@.d", s_none}, Case{"TwoDots", "a@b..d", s_none},
        Case{"DotAlone", "a@.", s_none}, Case{"BlankInDomain", "a@b d", s_none},
        Case{"BlankAtEnd", "a@d ", s_none}, Case{"BlankInIdn", "a@b\u00fc d", s_none},
        Case{"WideDotAtEnd", "a@b\u00fc.d\u3002", s_none},
        Case{"WideAt", "a@b\u00fc\uff20d", s_none}, Case{"JoinerInIdn", "a@a\u200db.d", s_none},
        Case{"NothingLeft", "a@\u00ad", s_none}, Case{"BrokenPunycode", "a@xn--\u00fc.d", s_none},
        Case{"HyphenInIdn", "a@-b\u00fc.d", s_none}),
    s_nameOf);

TEST(AddressKey, PeopleWhoseNamesDifferStayApart) {
  const std::vector<std::vector<std::string>> apart = {
      {"jose@d", "jos\u00e9@d"},
      {"strasse@d", "stra\u00dfe@d"},
      {"ilker@d", "\u0130lker@d", "\u0131lker@d"},
      {"\u1fb3@d", "\u03b1\u03b9@d"},
      {"f\u0069@d", "\ufb01@d"},
      {"ann@d", "\uff41nn@d"},
      {"ann@strasse.example", "ann@stra\u00dfe.example"},
  };
  for (const std::vector<std::string>& texts : apart) {
    std::vector<std::string> keys;
    for (const std::string& text : texts) keys.push_back(s_key(text).value_or(""));
    EXPECT_EQ(std::count(keys.begin(), keys.end(), ""), 0) << texts[0];
    std::sort(keys.begin(), keys.end());
    EXPECT_EQ(std::adjacent_find(keys.begin(), keys.end()), keys.end()) << texts[0];
  }
}

TEST(AddressKey, LengthsAreLimitedInOctetsAsGiven) {
  const std::string local64(64, 'a');
  EXPECT_TRUE(s_key(local64 + "@d"));
  EXPECT_FALSE(s_key(local64 + "a@d"));
  EXPECT_TRUE(s_key("\"" + std::string(62, 'a') + "\"@d"));
  EXPECT_FALSE(s_key("\"" + std::string(63, 'a') + "\"@d"));
  std::string umlauts;
  for (int i = 0; i < 32; ++i) umlauts += "\u00fc";
  EXPECT_TRUE(s_key(umlauts + "@d"));
  EXPECT_FALSE(s_key(umlauts + "a@d"));
  const std::string domain(252, 'd');
  EXPECT_TRUE(s_key("a@" + domain));
  EXPECT_FALSE(s_key("a@" + domain + "d"));
  EXPECT_FALSE(s_key("\"a\"@" + domain));
  EXPECT_FALSE(s_key(std::string(1000000, 'a') + "@d"));
  EXPECT_TRUE(s_domainKey(std::string(255, 'd')));
  EXPECT_FALSE(s_domainKey(std::string(256, 'd')));
}

TEST(AddressKey, AKeyMayBeLongerThanItsText) {
  std::string text;
  std::string want;
  for (int i = 0; i < 32; ++i) {
    text += "\u023a";
    want += "\u2c65";
  }
  EXPECT_EQ(s_key(text + "@d"), want + "@d");
}

TEST(AddressKey, EveryCharacterHasOneKeyInAllItsSpellings) {
  std::size_t letters = 0;
  // The planes behind these have no letters that fold or compose.
  for (char32_t c = 0xa0; c <= 0x2ffff; ++c) {
    if (c >= 0xd800 && c <= 0xdfff) continue;
    std::string text;
    icu::UnicodeString(static_cast<UChar32>(c)).toUTF8String(text);
    const std::optional<std::string> key = s_key("a" + text + "z@d");
    ASSERT_TRUE(key) << std::hex << static_cast<unsigned>(c);
    ASSERT_EQ(s_key(*key), key) << std::hex << static_cast<unsigned>(c);
    ASSERT_EQ(s_key("A" + text + "Z@D"), key) << std::hex << static_cast<unsigned>(c);
    if (*key != "a" + text + "z@d") ++letters;
  }
  // Capitals, and characters that have another canonical form.
  EXPECT_GT(letters, 2000U);
}

TEST(DomainKey, IsThatOfTheDomainInAnAddress) {
  EXPECT_EQ(s_domainKey("Example.COM"), "example.com");
  EXPECT_EQ(s_domainKey("B\u00dcCHER.example"), "xn--bcher-kva.example");
  EXPECT_EQ(s_domainKey("[IPv6:::1]"), "[ipv6:::1]");
  for (const char* text :
       {"", ".", "d.", ".d", "a..b", "a b", "a@b", "@", "a\nb", "\xc3", "\u3002"}) {
    EXPECT_FALSE(s_domainKey(text)) << text;
  }
}

TEST(SplitAddress, GivesPartsThatLieInTheText) {
  const std::string_view text = "\"a@ \\\"\"@Example.com";
  std::string_view local;
  std::string_view domain;
  ASSERT_TRUE(splitAddress(text, local, domain));
  EXPECT_EQ(local, "\"a@ \\\"\"");
  EXPECT_EQ(domain, "Example.com");
  EXPECT_EQ(local.data(), text.data());
  ASSERT_TRUE(splitAddress("a@b", local, domain));
  EXPECT_EQ(local, "a");
  EXPECT_EQ(domain, "b");
  for (const char* none : {"", "@", "a", "a@", "@b", "a@b@c", "\"a\"@b@c", "\"a@b", "\"a\"b@c"}) {
    EXPECT_FALSE(splitAddress(none, local, domain)) << none;
  }
}

TEST(AddressKey, ThreadsMakeKeysAtTheSameTime) {
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&wrong] {
      for (int round = 0; round < 200; ++round) {
        if (s_key("Gru\u0308\u00dfe@B\u00dcCHER.example") !=
            "gr\u00fc\u00dfe@xn--bcher-kva.example") {
          ++wrong;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace Tessel::Tool
