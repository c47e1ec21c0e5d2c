// Tests of Exception: its facts, its chain of causes and its text.
#include "base/Exception.h"

#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/sourceLine.h"

namespace Tessel {
namespace {

TEST(Exception, KeepsWhatItWasBuiltFrom) {
  const Exception got("open", 4, "Source", 17);
  EXPECT_EQ(got.context(), "open");
  EXPECT_EQ(got.code(), 4);
  EXPECT_STREQ(got.file(), "Source");
  EXPECT_EQ(got.line(), 17);
  EXPECT_EQ(got.stringParameter(), "");
  EXPECT_EQ(got.cause(), nullptr);
}

int s_lineOfCall(const char* /*context*/, int line = sourceLine()) {
  return line;
}

TEST(Exception, TheLineOfTheSourceIsThatOfTheCallAlsoAsADefaultArgument) {
  EXPECT_EQ(sourceLine(), __LINE__);
  EXPECT_EQ(s_lineOfCall("here"), __LINE__);
  EXPECT_EQ(s_lineOfCall("elsewhere", 7), 7);
  static_assert(sourceLine() == __LINE__);
}

TEST(Exception, MayHaveNoFile) {
  const Exception got("open", 4, nullptr, 0);
  EXPECT_EQ(got.file(), nullptr);
  EXPECT_STREQ(got.what(), "open (code 4)");
}

TEST(Exception, DetailAndCauseAreChainedOnTheSameObject) {
  Exception got("outer", 4, "Outer", 2);
  Exception& chained = got.stringParameter("detail").cause(Exception("inner", 1, "Inner", 1));
  EXPECT_EQ(&chained, &got);
  EXPECT_EQ(got.stringParameter(), "detail");
  ASSERT_NE(got.cause(), nullptr);
  EXPECT_EQ(got.cause()->context(), "inner");
  EXPECT_STREQ(got.what(), "outer: detail (code 4, Outer:2), caused by: inner (code 1, Inner:1)");
}

TEST(Exception, CopiesAreIndependent) {
  Exception original("outer", 4, "Outer", 2);
  const Exception copy = original;
  original.stringParameter("later");
  EXPECT_EQ(copy.stringParameter(), "");
  EXPECT_EQ(original.stringParameter(), "later");
  static_assert(std::is_nothrow_copy_constructible_v<Exception>);
}

class NumberedException : public Exception {
 public:
  explicit NumberedException(int number) : Exception("numbered", 4, "N", 1), m_number(number) {}
  [[nodiscard]] int number() const { return m_number; }
  [[nodiscard]] std::shared_ptr<const Exception> clone() const override {
    return std::make_shared<NumberedException>(*this);
  }

 private:
  int m_number;
};

TEST(Exception, TheCauseKeepsItsMostDerivedType) {
  const Exception got = Exception("outer", 4, "Outer", 2).cause(NumberedException(42));
  const auto* cause = dynamic_cast<const NumberedException*>(got.cause());
  ASSERT_NE(cause, nullptr);
  EXPECT_EQ(cause->number(), 42);
}

TEST(Exception, TheCauseOfACauseOutlivesTheOriginals) {
  Exception outer("a", 4, "A", 1);
  {
    const Exception middle = Exception("b", 4, "B", 2).cause(Exception("c", 4, "C", 3));
    outer.cause(middle);
  }
  EXPECT_EQ(outer.cause()->cause()->context(), "c");
}

TEST(Exception, TheTextIsOneLineWithoutControlCharacters) {
  const Exception got = Exception("a", 4, "A", 1).stringParameter("x\ny\x1b[31m");
  EXPECT_STREQ(got.what(), "a: x\\x0ay\\x1b[31m (code 4, A:1)");
}

}  // namespace
}  // namespace Tessel
