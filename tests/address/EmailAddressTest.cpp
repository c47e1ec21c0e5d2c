// The address value: storage, copies, comparison and text.
#include "address/EmailAddress.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/address/EmailAddressTestSupport.h"

namespace Tessel {
namespace {

static_assert(sizeof(EmailAddress) == 56);
static_assert(std::is_nothrow_move_constructible_v<EmailAddress>);
static_assert(std::is_nothrow_move_assignable_v<EmailAddress>);
static_assert(std::is_nothrow_default_constructible_v<EmailAddress>);

EmailAddress s_address(const std::string& text) {
  return EmailAddress::rfc5321Parse(text, true);
}

// Local part and domain of 53 characters together are the longest that lie inside the object.
EmailAddress s_inline() {
  return s_address("Anna.Berg@Example.com");
}
EmailAddress s_longestInline() {
  return s_address(repeatedText("L", 30) + "@" + repeatedText("D", 23));
}
EmailAddress s_shortestHeap() {
  return s_address(repeatedText("L", 30) + "@" + repeatedText("D", 24));
}
EmailAddress s_heap() {
  return s_address(repeatedText("Local", 10) + "@" + repeatedText("Domain.", 20) + "Example");
}

// True when the object shares no memory with `other`: its text lies inside itself or in another
// block.
bool s_isIndependentOf(EmailAddress copy, const EmailAddress& original, const std::string& text) {
  {
    EmailAddress other = original;
    other = s_inline();
  }
  copy = EmailAddress(copy);
  return original.address() == text && copy.address() == text;
}

TEST(EmailAddress, DefaultConstructedIsNull) {
  const EmailAddress address;
  EXPECT_TRUE(address.isNull());
  EXPECT_EQ(address.local(), "");
  EXPECT_EQ(address.domain(), "");
  EXPECT_EQ(address.address(), "");
  EXPECT_EQ(address, EmailAddress());
  EXPECT_FALSE(address < EmailAddress());
}

TEST(EmailAddress, TextOfEveryLengthIsKept) {
  for (std::size_t local = 1; local <= 64; ++local) {
    for (std::size_t domain = 0; domain + local <= 120 && domain <= 63; ++domain) {
      const std::string wantLocal = repeatedText("Ab3", 22).substr(0, local);
      const std::string wantDomain = repeatedText("Xy7", 21).substr(0, domain);
      const EmailAddress got = EmailAddress::create(wantLocal, wantDomain, true);
      ASSERT_EQ(got.local(), wantLocal);
      ASSERT_EQ(got.domain(), wantDomain);
      ASSERT_FALSE(got.isNull());
      ASSERT_EQ(EmailAddress(got), got);
    }
  }
}

TEST(EmailAddress, CopiesAreEqualAndIndependent) {
  for (const EmailAddress& original :
       {EmailAddress(), s_inline(), s_longestInline(), s_shortestHeap(), s_heap()}) {
    const std::string text = original.address();
    EXPECT_TRUE(s_isIndependentOf(original, original, text)) << text;
  }
}

TEST(EmailAddress, AssignsEveryKindToEveryKind) {
  const std::array<EmailAddress, 5> kinds = {EmailAddress(), s_inline(), s_longestInline(),
                                             s_shortestHeap(), s_heap()};
  for (const EmailAddress& from : kinds) {
    for (const EmailAddress& to : kinds) {
      EmailAddress copied = to;
      copied = from;
      EXPECT_EQ(copied.address(), from.address());
      EmailAddress source = from;
      EmailAddress moved = to;
      moved = std::move(source);
      EXPECT_EQ(moved.address(), from.address());
    }
  }
}

TEST(EmailAddress, MoveLeavesTheNullAddress) {
  for (const EmailAddress& original : {s_inline(), s_heap()}) {
    EmailAddress source = original;
    const EmailAddress moved = std::move(source);
    EXPECT_EQ(moved.address(), original.address());
    // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move): the documented state.
    EXPECT_TRUE(source.isNull());
    source = original;
    EXPECT_EQ(source, original);
  }
}

TEST(EmailAddress, SelfAssignmentChangesNothing) {
  for (const EmailAddress& original : {EmailAddress(), s_inline(), s_heap()}) {
    EmailAddress address = original;
    EmailAddress& same = address;
    address = same;
    EXPECT_EQ(address.address(), original.address());
    address = std::move(same);
    EXPECT_EQ(address.address(), original.address());
  }
}

TEST(EmailAddress, SwapsInlineAndHeap) {
  EmailAddress a = s_inline();
  EmailAddress b = s_heap();
  std::swap(a, b);
  EXPECT_EQ(a, s_heap());
  EXPECT_EQ(b, s_inline());
}

TEST(EmailAddress, EqualityDisregardsTheCaseOfAsciiLettersOnly) {
  EXPECT_EQ(s_address("Anna.Berg@Example.COM"), s_address("aNNA.bERG@eXAMPLE.com"));
  EXPECT_TRUE(s_address("a@b") != s_address("a@c"));
  EXPECT_FALSE(s_address("J\xc3\x96rg@b") == s_address("J\xc3\xb6rg@b"));
  // Characters that differ in the bit of the letter case without being letters.
  EXPECT_FALSE(s_address("a^@b") == s_address("a~@b"));
  EXPECT_FALSE(s_address("\"a[\"@b") == s_address("\"a{\"@b"));
  EXPECT_FALSE(s_address("\"a]\"@b") == s_address("\"a}\"@b"));
  EXPECT_FALSE(s_address("\"@\"@b") == s_address("\"`\"@b"));
  EXPECT_FALSE(s_address("\"\\\\\"@b") == s_address("\"|\"@b"));
  EXPECT_FALSE(s_address("\xc3\xa0@b") == s_address("\xc3\x80@b"));
  EXPECT_FALSE(s_address("\xc3\xa1@b") == s_address("\xe3\xa1\x81@b"));
}

TEST(EmailAddress, EqualityTellsLocalPartFromDomain) {
  EXPECT_FALSE(s_address("ab@c") == s_address("a@bc"));
  EXPECT_FALSE(s_address("\"a@b\"@c") == s_address("\"a\"@b.c"));
  EXPECT_FALSE(s_address("a") == s_address("a@a"));
}

// Folds every byte and both texts in the plainest way.
bool s_plainLess(const EmailAddress& a, const EmailAddress& b) {
  const auto folded = [](std::string text) {
    for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    return text;
  };
  const auto less = [](const std::string& x, const std::string& y) {
    return std::lexicographical_compare(x.begin(), x.end(), y.begin(), y.end(), [](char c, char d) {
      return static_cast<unsigned char>(c) < static_cast<unsigned char>(d);
    });
  };
  const std::string localA = folded(a.local());
  const std::string localB = folded(b.local());
  return localA == localB ? less(folded(a.domain()), folded(b.domain())) : less(localA, localB);
}

TEST(EmailAddress, EveryPairOfBytesIsComparedAsFolded) {
  std::vector<EmailAddress> addresses;
  for (int byte = 0x20; byte < 0x7f; ++byte) {
    addresses.push_back(EmailAddress::create(std::string(1, static_cast<char>(byte)), "b", false));
  }
  for (const char* text :
       {"\xc2\xa0", "\xc3\x80", "\xc3\xa0", "\xe2\x82\xac", "\xf4\x80\x80\x80"}) {
    addresses.push_back(EmailAddress::create(text, "b", false));
  }
  for (const EmailAddress& a : addresses) {
    for (const EmailAddress& b : addresses) {
      EXPECT_EQ(a < b, s_plainLess(a, b)) << a << " and " << b;
      EXPECT_EQ(a == b, !s_plainLess(a, b) && !s_plainLess(b, a)) << a << " and " << b;
    }
  }
}

// All pairs of addresses that have a beginning in common and end near the border between inline
// and heap, where words are partly text and partly lengths.
TEST(EmailAddress, AddressesOfAlmostEqualTextAreComparedRight) {
  std::vector<EmailAddress> addresses;
  for (const std::size_t local : {1U, 20U, 50U, 64U}) {
    for (std::size_t domain = 0; domain <= 63; ++domain) {
      for (const char* end : {"", "-x", ".x", "X", "0"}) {
        const std::string text = repeatedText("D", domain) + end;
        if (text.size() > 63 || text[0] == '-' || text[0] == '.') continue;
        addresses.push_back(EmailAddress::create(repeatedText("l", local), text, true));
      }
    }
  }
  for (const EmailAddress& a : addresses) {
    for (const EmailAddress& b : addresses) {
      ASSERT_EQ(a < b, s_plainLess(a, b)) << a << " and " << b;
      ASSERT_EQ(a == b, !(a < b) && !(b < a)) << a << " and " << b;
    }
  }
}

TEST(EmailAddress, OrderIsByLocalPartThenDomainWithNullFirst) {
  const std::vector<std::string> ordered = {
      "",    "\"\"@z", "\" \"@a", "!@a",  "-@a", "1@a", "A",          "a@A",           "A@a.b",
      "a@b", "a!@a",   "A.b",     "ab@a", "b@a", "z@z", "\xc2\xa0@a", "\xe4\xbe\x8b@a"};
  for (std::size_t i = 0; i < ordered.size(); ++i) {
    for (std::size_t j = 0; j < ordered.size(); ++j) {
      EXPECT_EQ(s_address(ordered[i]) < s_address(ordered[j]), i < j)
          << ordered[i] << " and " << ordered[j];
    }
  }
}

TEST(EmailAddress, StandardLessAgrees) {
  EXPECT_TRUE(std::less<EmailAddress>()(s_address("A@b"), s_address("b@a")));
  EXPECT_TRUE(std::less<>()(s_address("A@b"), s_address("b@a")));
  const std::set<EmailAddress> set = {s_address("B@x"), s_address("a@x"), s_address("b@X")};
  EXPECT_EQ(joined(set), "a@x,B@x");
}

TEST(EmailAddress, WritesNothingForTheNullAddress) {
  std::ostringstream stream;
  stream << EmailAddress() << ',' << s_inline();
  EXPECT_EQ(stream.str(), ",Anna.Berg@Example.com");
}

TEST(EmailAddress, WritesWithTheWidthAndFillOfTheStream) {
  std::ostringstream stream;
  stream << std::left << std::setfill('.') << std::setw(8) << s_address("a@b") << '|'
         << s_address("\"a b\"@c");
  EXPECT_EQ(stream.str(), "a@b.....|\"a b\"@c");
}

TEST(EmailAddressCreate, TakesTheLocalPartWithoutQuotes) {
  const auto written = [](const char* local) {
    return EmailAddress::create(local, "example.com", false).address();
  };
  EXPECT_EQ(written("a.b"), "a.b@example.com");
  EXPECT_EQ(written("*"), "*@example.com");
  EXPECT_EQ(written("a b"), "\"a b\"@example.com");
  EXPECT_EQ(written("\"a\""), R"("\"a\""@example.com)");
  EXPECT_EQ(written("a\\"), R"("a\\"@example.com)");
  EXPECT_EQ(written(" a"), "\" a\"@example.com");
  EXPECT_EQ(written("a@b"), "\"a@b\"@example.com");
  EXPECT_EQ(written(""), "\"\"@example.com");
  EXPECT_EQ(written("\xc3\xb6"), "\xc3\xb6@example.com");
}

TEST(EmailAddressCreate, IsNullWhenBothAreEmpty) {
  EXPECT_TRUE(EmailAddress::create("", "", false).isNull());
  EXPECT_TRUE(EmailAddress::create({}, {}, true).isNull());
  EXPECT_TRUE(EmailAddress::create(std::string("\0a", 2), std::string("\0b", 2), false).isNull());
}

TEST(EmailAddressCreate, TextEndsAtTheFirstNul) {
  EXPECT_EQ(EmailAddress::create(std::string("a\0x", 3), std::string("b\0x", 3), false).address(),
            "a@b");
}

TEST(EmailAddressCreate, AllowsNoDomainOnlyWhenAsked) {
  EXPECT_EQ(EmailAddress::create("allusers_x", "", true).address(), "allusers_x");
  EXPECT_EQ(EmailAddress::create("all users", "", true).address(), "\"all users\"");
  const auto got = thrownBy([] { EmailAddress::create("allusers_x", "", false); });
  ASSERT_TRUE(got);
  EXPECT_EQ(got->stringParameter(), "The domain is empty: \"allusers_x@\"");
}

TEST(EmailAddressCreate, RefusesWhatCannotBeWritten) {
  const auto reason = [](const std::string& local, const std::string& domain) {
    const auto got = thrownBy([&] { EmailAddress::create(local, domain, true); });
    return got ? got->stringParameter().substr(0, got->stringParameter().find(": ")) : "";
  };
  EXPECT_EQ(reason("a\tb", "c"), "A control character in the local part");
  EXPECT_EQ(reason("a\x7f", "c"), "A control character in the local part");
  EXPECT_EQ(reason("a\xc2\x81", "c"), "A control character in the local part");
  EXPECT_EQ(reason("a\xc3", "c"), "Invalid UTF-8 in the local part");
  EXPECT_EQ(reason("a", "c."), "The domain ends with a dot");
  EXPECT_EQ(reason("a", " c"), "Character \" \" is not allowed in the domain");
  EXPECT_EQ(reason("a", "[1.2.3]"),
            "The address literal is neither an IPv4 address nor a tag with content");
}

TEST(EmailAddressCreate, CountsTheLocalPartAsWritten) {
  EXPECT_EQ(EmailAddress::create(repeatedText("\"", 31), "b", false).address().size(), 66U);
  EXPECT_TRUE(thrownBy([] { EmailAddress::create(repeatedText("\"", 32), "b", false); }));
  EXPECT_TRUE(thrownBy([] { EmailAddress::create(repeatedText(" ", 63), "b", false); }));
  EXPECT_TRUE(thrownBy([] { EmailAddress::create(repeatedText("a", 65), "b", false); }));
  EXPECT_EQ(EmailAddress::create(repeatedText("a", 254), "", true).local().size(), 254U);
  EXPECT_TRUE(thrownBy([] { EmailAddress::create(repeatedText("a", 255), "", true); }));
  EXPECT_TRUE(thrownBy([] { EmailAddress::create(repeatedText("a", 10000), "", true); }));
}

// The seed is printed and may be given in TSL_TEST_SEED, so that a failure can be repeated.
std::mt19937 s_random(const char* test) {
  const char* const given =
      std::getenv("TSL_TEST_SEED");  // NOLINT(concurrency-mt-unsafe): one thread.
  const unsigned long seed =
      given != nullptr ? std::strtoul(given, nullptr, 10) : std::random_device()();
  std::cout << test << ": TSL_TEST_SEED=" << seed << '\n';
  return std::mt19937(static_cast<std::mt19937::result_type>(seed));
}

std::size_t s_below(std::mt19937& random, std::size_t bound) {
  return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random);
}

template <std::size_t Size>
std::string s_pieces(std::mt19937& random, const std::array<const char*, Size>& pieces,
                     std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) text += pieces[s_below(random, Size)];
  return text;
}

constexpr std::array<const char*, 20> s_localPieces = {"a",
                                                       "B",
                                                       "z",
                                                       "Z",
                                                       ".",
                                                       "..",
                                                       " ",
                                                       "\"",
                                                       "\\",
                                                       "@",
                                                       ",",
                                                       "<",
                                                       "*",
                                                       "\xc3\xb6",
                                                       "\xe2\x82\xac",
                                                       "\xf0\x9f\x90\xb1",
                                                       "\xc3\x96",
                                                       "[",
                                                       "{",
                                                       "'"};
constexpr std::array<const char*, 8> s_labelPieces = {"a",        "B",    "0",   "x-y",
                                                      "\xc3\xb6", "long", "_in", "Example"};

EmailAddress s_randomAddress(std::mt19937& random) {
  for (;;) {
    std::string domain = s_pieces(random, s_labelPieces, s_below(random, 5));
    while (!domain.empty() && s_below(random, 3) != 0) {
      domain += "." + s_pieces(random, s_labelPieces, 1 + s_below(random, 8));
    }
    if (s_below(random, 10) == 0) domain = "[IPv6:2001:db8::1]";
    const std::string local = s_pieces(random, s_localPieces, s_below(random, 24));
    EmailAddress address;
    const auto refused = thrownBy([&] { address = EmailAddress::create(local, domain, true); });
    if (!refused && !address.isNull()) return address;
  }
}

TEST(EmailAddressProperty, EveryAcceptedAddressReadsBackFromItsText) {
  std::mt19937 random = s_random("EveryAcceptedAddressReadsBackFromItsText");
  std::size_t heaps = 0;
  for (int i = 0; i < 20000; ++i) {
    const EmailAddress address = s_randomAddress(random);
    const std::string text = address.address();
    if (text.size() > 54) ++heaps;
    for (const EmailAddress& again :
         {EmailAddress::rfc5321Parse(text, true), EmailAddress::rfc5322Parse(text, true),
          EmailAddress::rfc5322Parse("\"N, N\" <" + text + ">", true)}) {
      ASSERT_EQ(again, address) << text;
      ASSERT_EQ(again.local(), address.local());
      ASSERT_EQ(again.domain(), address.domain());
    }
    std::ostringstream stream;
    stream << address;
    ASSERT_EQ(stream.str(), text);
  }
  EXPECT_GT(heaps, 100U);
}

TEST(EmailAddressProperty, MembersTextReadsBackAsTheSameSet) {
  std::mt19937 random = s_random("MembersTextReadsBackAsTheSameSet");
  for (int i = 0; i < 500; ++i) {
    std::set<EmailAddress> addresses;
    const std::size_t count = s_below(random, 20);
    while (addresses.size() < count) addresses.insert(s_randomAddress(random));
    ASSERT_EQ(EmailAddress::rfc5322ParseSet(joined(addresses), true, false), addresses)
        << joined(addresses);
  }
}

// `address` with the case of some letters changed.
EmailAddress s_otherCase(const EmailAddress& address, std::mt19937& random) {
  const auto changed = [&](std::string text) {
    for (char& c : text) {
      const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
      if (isLetter && s_below(random, 2) == 0) c = static_cast<char>(c ^ 0x20);
    }
    return text;
  };
  return EmailAddress::create(changed(address.local()), changed(address.domain()), true);
}

TEST(EmailAddressProperty, OrderIsAStrictWeakOrderThatAgreesWithEquality) {
  std::mt19937 random = s_random("OrderIsAStrictWeakOrderThatAgreesWithEquality");
  std::vector<EmailAddress> pool = {EmailAddress(), s_longestInline(), s_shortestHeap(), s_heap()};
  for (int i = 0; i < 40; ++i) {
    const EmailAddress address = s_randomAddress(random);
    pool.push_back(address);
    pool.push_back(s_otherCase(address, random));
    // A neighbour that has most of the text in common, often on the other side of the limit.
    const std::string domain = address.domain() + (address.domain().empty() ? "x" : ".x");
    if (domain[0] != '[' && domain.size() < 150) {
      pool.push_back(EmailAddress::create(address.local(), domain, true));
    }
  }
  for (const EmailAddress& a : pool) {
    for (const EmailAddress& b : pool) {
      ASSERT_EQ(a < b, s_plainLess(a, b)) << a << " and " << b;
      ASSERT_EQ(a == b, !(a < b) && !(b < a)) << a << " and " << b;
      for (const EmailAddress& c : pool) {
        ASSERT_TRUE(!(a < b && b < c) || a < c) << a << ", " << b << ", " << c;
        ASSERT_TRUE(!(a == b && b == c) || a == c) << a << ", " << b << ", " << c;
      }
    }
  }
}

}  // namespace
}  // namespace Tessel
