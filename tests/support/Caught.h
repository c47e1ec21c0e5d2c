// What a failing call throws, as a value that a test can look at.
#ifndef TSL_TESTS_SUPPORT_CAUGHT_H
#define TSL_TESTS_SUPPORT_CAUGHT_H

#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "base/Exception.h"

namespace Tessel::Testing {

// The `Exception` that `call` throws; a test failure and a placeholder when it throws none.
template <class Call>
Exception caught(Call call) {
  try {
    call();
  } catch (const Exception& thrown) {
    return thrown;
  }
  ADD_FAILURE() << "no exception was thrown";
  return {"nothing was thrown", 0, nullptr, 0};
}

// Expects the facts of `got`. A null `file` means no file.
inline void expectFacts(const Exception& got, const std::string& context, int code,
                        const char* file, int line, const std::string& detail = "") {
  EXPECT_EQ(got.context(), context) << got.what();
  EXPECT_EQ(got.code(), code) << got.what();
  EXPECT_STREQ(got.file(), file) << got.what();
  EXPECT_EQ(got.line(), line) << got.what();
  EXPECT_EQ(got.stringParameter(), detail) << got.what();
}

}  // namespace Tessel::Testing

#endif
