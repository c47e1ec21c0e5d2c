// Extensions of addresses: where they begin, and what gets one.
#include "tables/Extension.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Tessel::Tool {
namespace {

// What `address` is cut into, with a bar between.
std::string s_cut(const std::string& address, const std::string& delimiters = "+") {
  const ExtendedAddress cut = cutExtension(address, delimiters);
  return cut.base + "|" + cut.extension;
}

TEST(Extension, BeginsAtTheFirstDelimiterOfTheLocalPart) {
  EXPECT_EQ(s_cut("user+tag@d"), "user@d|+tag");
  EXPECT_EQ(s_cut("user+tag+more@d"), "user@d|+tag+more");
  EXPECT_EQ(s_cut("user+@d"), "user@d|+");
  EXPECT_EQ(s_cut("user@d+tag"), "user@d+tag|");
  EXPECT_EQ(s_cut("user-tag@d"), "user-tag@d|");
  EXPECT_EQ(s_cut("user-a+b@d", "+-"), "user@d|-a+b");
}

TEST(Extension, IsNothingWithoutANameBeforeIt) {
  EXPECT_EQ(s_cut("+tag@d"), "+tag@d|");
  EXPECT_EQ(s_cut("++tag@d"), "+@d|+tag");
}

TEST(Extension, IsNothingInQuotesOrOutsideAnAddress) {
  EXPECT_EQ(s_cut("\"user+tag\"@d"), "\"user+tag\"@d|");
  for (const char* text : {"", "@", "user+tag", "user+tag@", "@d+tag", "a+b@c@d"}) {
    EXPECT_EQ(s_cut(text), std::string(text) + "|") << text;
  }
}

TEST(Extension, NamesOfListsHaveNoneAtADash) {
  EXPECT_EQ(s_cut("owner-list@d", "-"), "owner-list@d|");
  EXPECT_EQ(s_cut("Owner-list-x@d", "-"), "Owner-list-x@d|");
  EXPECT_EQ(s_cut("list-Request@d", "-"), "list-Request@d|");
  EXPECT_EQ(s_cut("owner-@d", "-"), "owner@d|-");
  EXPECT_EQ(s_cut("-request@d", "-"), "-request@d|");
  EXPECT_EQ(s_cut("owner-list+tag@d", "+-"), "owner-list+tag@d|");
  EXPECT_EQ(s_cut("user+owner-list@d", "+-"), "user@d|+owner-list");
}

TEST(Extension, IsPutAtTheEndOfALocalPart) {
  EXPECT_EQ(withExtension("User@D", "+tag", "+"), "User+tag@D");
  EXPECT_EQ(withExtension("\"a b\"@d", "+tag", "+"), "\"a b+tag\"@d");
  EXPECT_EQ(withExtension("j\u00f6rg@d", "+t\u00e4g", "+"), "j\u00f6rg+t\u00e4g@d");
  EXPECT_EQ(withExtension("user@d", "", "+"), "user@d");
}

TEST(Extension, IsNotPutWhereItDoesNotFit) {
  EXPECT_EQ(withExtension("user+own@d", "+tag", "+"), "user+own@d");
  EXPECT_EQ(withExtension("user", "+tag", "+"), "user");
  const std::string local(61, 'a');
  EXPECT_EQ(withExtension(local + "@d", "+ab", "+"), local + "+ab@d");
  EXPECT_EQ(withExtension(local + "@d", "+abc", "+"), local + "@d");
}

TEST(Extension, DoesNotBringQuotesToAnAddressWithout) {
  for (const char* extension : {"+a b", "+\"", "+a.", "+a..b", "+a@b"}) {
    EXPECT_EQ(withExtension("user@d", extension, "+"), "user@d") << extension;
  }
}

TEST(Extension, IsPutToEachAddressOfAListAsToOne) {
  const std::string longest(64, 'a');
  const std::vector<std::string> addresses = {"User@D.example",
                                              "user+own@d.example",
                                              "j\u00f6rg@d.example",
                                              "a@b\u00fccher.example",
                                              "\"a,b\"@d.example",
                                              "\"a\\\",b\"@d.example",
                                              "a@[IPv6:::1]",
                                              "a@[x:b,c@d]",
                                              "root",
                                              "owner-list@d.example",
                                              "user-own@d.example",
                                              longest + "@d.example",
                                              longest.substr(4) + "@d.example",
                                              longest.substr(3) + "@d.example",
                                              "a@" + longest.substr(2) + "." + longest.substr(2) +
                                                  "." + longest.substr(2) + "." +
                                                  longest.substr(8)};
  for (const char* extension : {"", "+tag", "+t", "+t\u00e4g", "+a.b", "+a.", "-tag", "+\""}) {
    for (const char* delimiters : {"+", "-", "+-"}) {
      std::string list;
      std::string expected;
      for (const std::string& address : addresses) {
        if (!list.empty()) list += ',';
        if (!expected.empty()) expected += ',';
        list += address;
        expected += withExtension(address, extension, delimiters);
        EXPECT_EQ(allWithExtension(address, extension, delimiters),
                  withExtension(address, extension, delimiters));
      }
      EXPECT_EQ(allWithExtension(list, extension, delimiters), expected);
    }
  }
}

}  // namespace
}  // namespace Tessel::Tool
