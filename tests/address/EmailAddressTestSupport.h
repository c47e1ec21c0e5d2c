// What the tests of the address library share.
#ifndef TSL_TESTS_ADDRESS_EMAILADDRESSTESTSUPPORT_H
#define TSL_TESTS_ADDRESS_EMAILADDRESSTESTSUPPORT_H

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "address/EmailAddress.h"
#include "base/Exception.h"

namespace Tessel {

// `text`, `count` times.
inline std::string repeatedText(std::string_view text, std::size_t count) {
  std::string result;
  for (std::size_t i = 0; i < count; ++i) result += text;
  return result;
}

// The exception that `operation` throws, or nothing.
template <class Operation>
std::optional<Exception> thrownBy(const Operation& operation) {
  try {
    operation();
  } catch (const Exception& exception) {
    return exception;
  }
  return std::nullopt;
}

// Members text: the addresses in order, joined by commas.
inline std::string joined(const std::set<EmailAddress>& addresses) {
  std::string text;
  for (const EmailAddress& address : addresses) {
    if (!text.empty()) text += ',';
    text += address.address();
  }
  return text;
}

// The functions that read one address.
enum class Parser { rfc5321, rfc5322, rfc5322Set, rfc5322SetWithGroups };

// What `parser` reads from `text`, as members text.
inline std::string parsed(Parser parser, const std::string& text, bool allowNoDomain) {
  switch (parser) {
    case Parser::rfc5321:
      return EmailAddress::rfc5321Parse(text, allowNoDomain).address();
    case Parser::rfc5322:
      return EmailAddress::rfc5322Parse(text, allowNoDomain).address();
    case Parser::rfc5322Set:
      return joined(EmailAddress::rfc5322ParseSet(text, allowNoDomain, false));
    case Parser::rfc5322SetWithGroups:
      return joined(EmailAddress::rfc5322ParseSet(text, allowNoDomain, true));
  }
  return {};
}

// A text that a parser refuses, and a part of the reason.
struct RefusedCase {
  const char* name;
  Parser parser;
  bool allowNoDomain;
  std::string text;
  const char* reason;
};

inline void PrintTo(const RefusedCase& refused, std::ostream* stream) {
  *stream << refused.name;
}

inline void expectRefused(const RefusedCase& refused) {
  const auto got = thrownBy([&] { parsed(refused.parser, refused.text, refused.allowNoDomain); });
  ASSERT_TRUE(got) << "accepted";
  EXPECT_EQ(got->code(), 4);
  EXPECT_STREQ(got->file(), "EmailAddress");
  const std::string reason = got->stringParameter().substr(0, got->stringParameter().find(": \""));
  EXPECT_NE(reason.find(refused.reason), std::string::npos) << got->stringParameter();
}

// A text that a parser accepts, and what it must read. `written` is the text of the address.
struct AcceptedCase {
  const char* name;
  Parser parser;
  bool allowNoDomain;
  std::string text;
  std::string local;
  std::string domain;
  std::string written;
};

inline void PrintTo(const AcceptedCase& accepted, std::ostream* stream) {
  *stream << accepted.name;
}

// Reads the text, as one address and as a set of one, and reads what is written back again.
inline void expectAccepted(const AcceptedCase& accepted) {
  const EmailAddress got = accepted.parser == Parser::rfc5321
                               ? EmailAddress::rfc5321Parse(accepted.text, accepted.allowNoDomain)
                               : EmailAddress::rfc5322Parse(accepted.text, accepted.allowNoDomain);
  EXPECT_EQ(got.local(), accepted.local);
  EXPECT_EQ(got.domain(), accepted.domain);
  EXPECT_EQ(got.address(), accepted.written);
  EXPECT_FALSE(got.isNull());
  EXPECT_EQ(EmailAddress::rfc5321Parse(got.address(), accepted.allowNoDomain), got);
  EXPECT_EQ(EmailAddress::rfc5322Parse(accepted.text, accepted.allowNoDomain), got);
  EXPECT_EQ(EmailAddress::create(accepted.local, accepted.domain, accepted.allowNoDomain), got);
  EXPECT_EQ(joined(EmailAddress::rfc5322ParseSet(accepted.text, accepted.allowNoDomain, false)),
            accepted.written);
}

// Names the cases of a table.
template <class Case>
std::string caseName(const ::testing::TestParamInfo<Case>& info) {
  return info.param.name;
}

}  // namespace Tessel

#endif
