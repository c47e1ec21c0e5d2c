// Tests of Logger: where messages go and what they look like.
#include "base/Logger.h"

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/ExpectedLog.h"

namespace Tessel {
namespace {

// Sends the log to standard error for as long as it lives.
class StandardErrorLog {
 public:
  StandardErrorLog() {
    setenv("TSL_LOG", "stderr", 1);
    Logger::instance(true);
  }
  ~StandardErrorLog() {
    unsetenv("TSL_LOG");
    Logger::instance(true);
  }
  StandardErrorLog(const StandardErrorLog&) = delete;
  StandardErrorLog& operator=(const StandardErrorLog&) = delete;
};

TEST(Logger, ACapturedMessageCarriesCodeNumberAndFormattedText) {
  Logger::instance(false)(0x300002bU, 7, "row %d of %s", 3, "alias");
  const std::vector<Logger::Message> got = Testing::takeLog();
  ASSERT_EQ(got.size(), 1U);
  EXPECT_EQ(got[0].code, 0x300002bU);
  EXPECT_EQ(got[0].number, 7);
  EXPECT_EQ(got[0].text, "row 3 of alias");
}

TEST(Logger, TheNewestCaptureCollects) {
  {
    Logger::Capture inner;
    Logger::instance(false)(1, 0, "inner");
    EXPECT_EQ(inner.take().size(), 1U);
  }
  EXPECT_TRUE(Testing::takeLog().empty());
}

TEST(Logger, ControlCharactersAndOverlongTextsDoNotReachTheLog) {
  Logger::instance(false)(1, 0, "a\nb\x1b");
  Logger::instance(false)(1, 0, "%s", std::string(5000, 'x').c_str());
  const std::vector<Logger::Message> got = Testing::takeLog();
  ASSERT_EQ(got.size(), 2U);
  EXPECT_EQ(got[0].text, "a?b?");
  EXPECT_EQ(got[1].text, std::string(1000, 'x'));
}

TEST(Logger, ManyThreadsMayLogAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([] {
      for (int n = 0; n < 100; ++n) Logger::instance(false)(1, n, "message");
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(Testing::takeLog().size(), 800U);
}

// The capture of the running test would collect the messages, so these run in a process of their
// own.
[[noreturn]] void s_logWithoutCapture() {
  const StandardErrorLog log;
  std::thread([] {}).join();
  Logger::instance(false)(0x300002aU, 0, "%s", " ");
  _exit(0);
}

TEST(LoggerDeathTest, GoesToStandardErrorWhenTheEnvironmentSaysSo) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Testing::stopWatchingLog();
        s_logWithoutCapture();
      },
      testing::ExitedWithCode(0), "tsl\\[0x300002a\\] 0:  ");
}

}  // namespace
}  // namespace Tessel
