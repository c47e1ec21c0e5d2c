// The C helpers seen from C++: what a handle points to, and who owns what.
#include "address/tsl_emailaddress.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/address/EmailAddressTestSupport.h"

extern "C" int tsl_emailaddress_c_test(void);

namespace Tessel {
namespace {

TEST(TslEmailAddress, WorksFromC) {
  EXPECT_EQ(tsl_emailaddress_c_test(), 0) << "the number is the line that failed";
}

TEST(TslEmailAddress, AHandleIsAPointerToTheAddress) {
  for (const std::string& text :
       {std::string("Anna@Example.com"), std::string("\"a b\"@c"),
        repeatedText("l", 60) + "@" + repeatedText("domain.", 20) + "example"}) {
    const EmailAddress address = EmailAddress::rfc5321Parse(text, false);
    tsl_emailaddress handle = tsl_emailaddress_create(address);
    ASSERT_NE(handle, nullptr);
    const auto* pointed = reinterpret_cast<const EmailAddress*>(handle);
    EXPECT_EQ(*pointed, address);
    EXPECT_EQ(&emailAddressOf(handle), pointed);
    EXPECT_EQ(tsl_emailaddress_text(handle), text);
    EXPECT_EQ(tsl_emailaddress_text(handle), tsl_emailaddress_text(handle));
    tsl_emailaddress_destroy(handle);
  }
}

TEST(TslEmailAddress, ACopyOutlivesItsOriginal) {
  tsl_emailaddress handle = nullptr;
  {
    const EmailAddress address = EmailAddress::rfc5321Parse("a@b", false);
    handle = tsl_emailaddress_create(address);
  }
  EXPECT_STREQ(tsl_emailaddress_text(handle), "a@b");
  tsl_emailaddress_destroy(handle);
}

TEST(TslEmailAddress, TheNullAddressHasAHandleWithEmptyText) {
  tsl_emailaddress handle = tsl_emailaddress_create(EmailAddress());
  ASSERT_NE(handle, nullptr);
  EXPECT_TRUE(emailAddressOf(handle).isNull());
  EXPECT_STREQ(tsl_emailaddress_text(handle), "");
  tsl_emailaddress_destroy(handle);
}

TEST(TslEmailAddress, ParseAcceptsNoAddressWithoutDomain) {
  EXPECT_EQ(tsl_emailaddress_parse("allusers_example.com"), nullptr);
  EXPECT_EQ(tsl_emailaddress_parse("Anna <a@b>"), nullptr);
}

// The leak checker of the sanitizer build sees to it that the address is ended.
TEST(TslEmailAddressContainer, AppendToNoContainerEndsTheAddress) {
  EXPECT_EQ(tsl_emailaddress_container_append(nullptr, tsl_emailaddress_parse("a@b")), -1);
}

TEST(TslEmailAddressContainer, KeepsItsAddressesWhileItGrows) {
  tsl_emailaddress_container container = tsl_emailaddress_container_create();
  tsl_emailaddress first = tsl_emailaddress_parse("user0@example.com");
  ASSERT_EQ(tsl_emailaddress_container_append(container, first), 0);
  for (int i = 1; i < 1000; ++i) {
    const std::string text = "user" + std::to_string(i) + "@example.com";
    ASSERT_EQ(tsl_emailaddress_container_append(container, tsl_emailaddress_parse(text.c_str())),
              0);
  }
  EXPECT_EQ(tsl_emailaddress_container_size(container), 1000U);
  EXPECT_EQ(tsl_emailaddress_container_get(container, 0), first);
  EXPECT_STREQ(tsl_emailaddress_text(tsl_emailaddress_container_get(container, 999)),
               "user999@example.com");
  EXPECT_EQ(tsl_emailaddress_container_get(container, 1000), nullptr);
  EXPECT_EQ(tsl_emailaddress_container_get(container, static_cast<size_t>(-1)), nullptr);
  tsl_emailaddress_container_destroy(container);
}

}  // namespace
}  // namespace Tessel
