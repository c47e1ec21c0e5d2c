// The log: its lines, and what they may contain.
#include "serve/base/Log.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ErrorOutput.h"

namespace Tessel::Serve {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

// The lines of what is written to standard error while in scope.
class ErrorLines {
 public:
  std::vector<std::string> take() {
    std::istringstream stream(m_output.take());
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
  }

 private:
  Testing::ErrorOutput m_output;
};

// The lines that a log of `level` has of one message of each level.
std::vector<std::string> s_linesOf(LogLevel level) {
  ErrorLines output;
  Log log(level);
  log.error("one");
  log.warning("two");
  log.info("three");
  log.debug("four");
  log.flush();
  return output.take();
}

class LogTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const char* const stream = getenv("JOURNAL_STREAM")) m_before = stream;
    unsetenv("JOURNAL_STREAM");
  }
  void TearDown() override {
    if (m_before.empty()) {
      unsetenv("JOURNAL_STREAM");
    } else {
      setenv("JOURNAL_STREAM", m_before.c_str(), 1);
    }
  }

 private:
  std::string m_before;
};

TEST_F(LogTest, HasLinesUpToItsLevel) {
  EXPECT_THAT(s_linesOf(LogLevel::Error), ElementsAre("tsl-address-map: error: one"));
  EXPECT_THAT(s_linesOf(LogLevel::Warning), SizeIs(2));
  EXPECT_THAT(s_linesOf(LogLevel::Info), SizeIs(3));
  EXPECT_THAT(s_linesOf(LogLevel::Debug),
              ElementsAre("tsl-address-map: error: one", "tsl-address-map: warning: two",
                          "tsl-address-map: info: three", "tsl-address-map: debug: four"));
  EXPECT_FALSE(Log(LogLevel::Info).isDebug());
  EXPECT_TRUE(Log(LogLevel::Debug).isDebug());
}

TEST_F(LogTest, GivesTheJournalPriorities) {
  setenv("JOURNAL_STREAM", "8:1", 1);
  EXPECT_THAT(s_linesOf(LogLevel::Debug), ElementsAre("<3>one", "<4>two", "<6>three", "<7>four"));
}

TEST_F(LogTest, AMessageIsOneLineWithoutControlCharacters) {
  ErrorLines output;
  Log log(LogLevel::Info);
  log.info(std::string("a\nb\x1b[2Jc\0d\xff\x7f", 12));
  log.flush();
  EXPECT_THAT(output.take(),
              ElementsAre("tsl-address-map: info: a\\x0ab\\x1b[2Jc\\x00d\\xff\\x7f"));
}

TEST_F(LogTest, AMessageShowsWhatIsInvisibleOrTurnsTheTextAround) {
  ErrorLines output;
  Log log(LogLevel::Info);
  log.info("\u202eevil\u200b\u2028\u2066\ufeff\u061c\u00ad");
  log.info("Gr\u00fc\u00dfe\u2026\u20ac\u3042");
  log.flush();
  EXPECT_THAT(output.take(),
              ElementsAre("tsl-address-map: info: \\xe2\\x80\\xaeevil\\xe2\\x80\\x8b"
                          "\\xe2\\x80\\xa8\\xe2\\x81\\xa6\\xef\\xbb\\xbf\\xd8\\x9c\\xc2\\xad",
                          "tsl-address-map: info: Gr\u00fc\u00dfe\u2026\u20ac\u3042"));
}

TEST_F(LogTest, ALineHasFourKibibytesAtMost) {
  ErrorLines output;
  Log log(LogLevel::Info);
  log.info(std::string(10000, 'a'));
  log.flush();
  const std::string start = "tsl-address-map: info: ";
  EXPECT_THAT(output.take(), ElementsAre(start + std::string(4095 - start.size(), 'a')));
}

TEST_F(LogTest, ALineThatCannotBeWrittenIsLost) {
  const int before = dup(STDERR_FILENO);
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_NE(full, -1);
  dup2(full, STDERR_FILENO);
  {
    Log log(LogLevel::Info);
    log.error("nobody reads this");
    log.flush();
    EXPECT_EQ(log.lost(), 1U);
  }
  dup2(before, STDERR_FILENO);
  close(full);
  close(before);
  ErrorLines output;
  Log(LogLevel::Info).error("but this");
  EXPECT_THAT(output.take(), ElementsAre("tsl-address-map: error: but this"));
}

TEST_F(LogTest, LinesOfThreadsStayWhole) {
  ErrorLines output;
  Log log(LogLevel::Info);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&log, i] {
      const std::string text(200, static_cast<char>('a' + i));
      for (int n = 0; n < 50; ++n) log.info(text);
    });
  }
  for (std::thread& thread : threads) thread.join();
  log.flush();
  const std::vector<std::string> lines = output.take();
  EXPECT_THAT(lines, SizeIs(200));
  for (const std::string& line : lines) {
    const std::string text = line.substr(line.size() - 200);
    EXPECT_EQ(line, "tsl-address-map: info: " + std::string(200, text[0]));
  }
}

TEST_F(LogTest, AProblemIsWrittenOnceAMinute) {
  ErrorLines output;
  Log log(LogLevel::Info);
  for (int i = 0; i < 100; ++i) {
    log.warning("the same");
    log.error("an error");
    log.info("news");
  }
  log.warning("another");
  log.flush();
  const std::vector<std::string> lines = output.take();
  EXPECT_THAT(lines, SizeIs(103));
  EXPECT_EQ(lines.at(0), "tsl-address-map: warning: the same");
  EXPECT_EQ(lines.back(), "tsl-address-map: warning: another");
}

TEST_F(LogTest, AProblemThatGoesOnIsWrittenAgainWithItsNumber) {
  const std::chrono::milliseconds quiet(200);
  ErrorLines output;
  Log log(LogLevel::Info, quiet);
  for (int i = 0; i < 4; ++i) log.error("the same");
  std::this_thread::sleep_for(quiet);
  for (int i = 0; i < 3; ++i) log.error("the same");
  std::this_thread::sleep_for(quiet);
  log.error("the same");
  log.flush();
  const std::string line = "tsl-address-map: error: the same";
  const std::string more = " times more since the last such line)";
  EXPECT_THAT(output.take(), ElementsAre(line, line + " (3" + more, line + " (2" + more));
}

TEST_F(LogTest, AProblemThatCameAlsoWhileManyOthersDidIsCounted) {
  const std::chrono::milliseconds quiet(200);
  ErrorLines output;
  Log log(LogLevel::Info, quiet);
  log.error("once");
  for (int i = 0; i < 2; ++i) log.error("twice");
  std::this_thread::sleep_for(quiet);
  log.error("another");
  for (const char* text : {"once", "twice"}) log.error(text);
  log.flush();
  const std::string start = "tsl-address-map: error: ";
  EXPECT_THAT(output.take(),
              ElementsAre(start + "once", start + "twice", start + "another", start + "once",
                          start + "twice (1 times more since the last such line)"));
}

TEST_F(LogTest, AThousandProblemsAreRememberedAndNotMore) {
  ErrorLines output;
  Log log(LogLevel::Info);
  for (int i = 0; i < 1001; ++i) {
    log.error(std::to_string(i));
    if (i % 100 == 0) log.flush();
  }
  for (const char* text : {"999", "1000"}) log.error(text);
  log.flush();
  const std::vector<std::string> lines = output.take();
  EXPECT_THAT(lines, SizeIs(1002));
  EXPECT_EQ(lines.back(), "tsl-address-map: error: 1000");
}

TEST_F(LogTest, WhoLogsNeverWaitsForWhoeverReads) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const int before = dup(STDERR_FILENO);
  dup2(ends[1], STDERR_FILENO);
  close(ends[1]);
  {
    Log log(LogLevel::Info);
    const std::string text(1000, 'x');
    // Far more than a pipe takes.
    for (int i = 0; i < 5000; ++i) log.info(text + std::to_string(i));
    EXPECT_GT(log.lost(), 1000U);
    EXPECT_LT(log.lost(), 5000U);
  }
  dup2(before, STDERR_FILENO);
  close(before);
  close(ends[0]);
}

TEST_F(LogTest, WhoeverReadsMayGoAway) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  close(ends[0]);
  const int before = dup(STDERR_FILENO);
  dup2(ends[1], STDERR_FILENO);
  close(ends[1]);
  {
    Log log(LogLevel::Info);
    log.info("nobody reads this");
  }
  dup2(before, STDERR_FILENO);
  close(before);
}

}  // namespace
}  // namespace Tessel::Serve
