// Progress: what its bar and its lines say, and when they come where nobody looks on. What a
// terminal shows is tested by terminal.bats.
#include "terminal/Progress.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Tessel::Tool {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

ProgressState s_half(milliseconds elapsed = milliseconds(10000)) {
  return {"writing", "rows", 500000, 1000000, elapsed};
}

TEST(ProgressBarTest, HasAllOfItInEightyColumns) {
  EXPECT_EQ(progressBar(s_half(), 80),
            "writing [==========          ]  50%  500000 of 1000000 rows, 50000/s, 0:10 left");
}

TEST(ProgressBarTest, OfWorkWithoutAnythingDoneTellsNoTimeLeft) {
  ProgressState state = s_half();
  state.done = 0;
  EXPECT_EQ(progressBar(state, 80),
            "writing [                              ]   0%  0 of 1000000 rows, 0/s");
}

TEST(ProgressBarTest, OfWorkThatIsDoneIsFull) {
  ProgressState state = s_half();
  state.done = 1000000;
  EXPECT_THAT(progressBar(state, 80), HasSubstr("=] 100%"));
  EXPECT_THAT(progressBar(state, 80), HasSubstr("0:00 left"));
}

TEST(ProgressBarTest, NeverShowsMoreThanAll) {
  ProgressState state = s_half();
  state.done = 1000001;
  EXPECT_THAT(progressBar(state, 80), HasSubstr("=] 100%"));
  EXPECT_THAT(progressBar(state, 80), Not(HasSubstr("left")));
}

TEST(ProgressBarTest, OfNothingToDoIsFull) {
  EXPECT_THAT(progressBar({"writing", "rows", 0, 0, milliseconds(0)}, 80), HasSubstr("=] 100%"));
}

TEST(ProgressBarTest, LosesTheBarFirstAndThenTheCounts) {
  EXPECT_EQ(progressBar(s_half(), 65), "writing: 50%, 500000 of 1000000 rows, 50000/s, 0:10 left");
  EXPECT_EQ(progressBar(s_half(), 40), "writing: 50%, 50000 rows/s, 0:10 left");
  EXPECT_EQ(progressBar(s_half(), 30), "writing: 50%, 50000 rows/s");
  EXPECT_EQ(progressBar(s_half(), 20), "50%, 50000 rows/s");
  EXPECT_EQ(progressBar(s_half(), 10), "50%");
  EXPECT_EQ(progressBar(s_half(), 3), "");
}

TEST(ProgressBarTest, TellsHours) {
  EXPECT_THAT(progressBar(s_half(milliseconds(3723000)), 100), HasSubstr("1:02:03 left"));
}

TEST(ProgressBarTest, OfAnUnknownTotalTellsCountAndRate) {
  const ProgressState state{"reading", "lines", 3000, std::nullopt, milliseconds(1500)};
  EXPECT_EQ(progressBar(state, 80), "reading: 3000 lines, 2000/s");
  EXPECT_EQ(progressBar(state, 20), "3000 lines, 2000/s");
  EXPECT_EQ(progressBar(state, 15), "3000 lines");
}

TEST(ProgressBarTest, OfWorkThatCountsNothingYetTellsTheTime) {
  const ProgressState state{"reading", "rows", 0, std::nullopt, milliseconds(65000)};
  EXPECT_EQ(progressBar(state, 80), "reading: 1:05");
}

TEST(ProgressBarTest, LeavesTheLastColumnFreeAtAnyWidth) {
  const std::array<ProgressState, 5> states = {
      s_half(),
      {"checking alias_of_a_table_with_a_long_name", "rows", 999999999999, 1000000000000,
       milliseconds(99999999)},
      {"writing", "rows", 1, 1000000000000, milliseconds(999)},
      {"reading", "lines", 123456789, std::nullopt, milliseconds(1)},
      {"looking for paths", "aliases", 0, std::nullopt, milliseconds(0)}};
  for (const ProgressState& state : states) {
    for (std::size_t columns = 0; columns < 200; ++columns) {
      EXPECT_LT(progressBar(state, columns).size(), std::max<std::size_t>(columns, 1));
    }
  }
}

TEST(ProgressLineTest, TellsTheCounts) {
  EXPECT_EQ(progressLine(s_half()), "writing: 500000 of 1000000 rows");
  EXPECT_EQ(progressLine({"reading", "lines", 7, std::nullopt, milliseconds(1)}),
            "reading: 7 lines");
}

// Standard error leads into a pipe, or elsewhere, as long as it lives.
class ElsewhereTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(pipe2(m_pipe.data(), O_CLOEXEC), 0);
    m_before = dup(STDERR_FILENO);
    lead(m_pipe[1]);
  }
  void TearDown() override {
    lead(m_before);
    for (const int descriptor : {m_pipe[0], m_pipe[1], m_before}) close(descriptor);
  }

  static void lead(int descriptor) { ASSERT_NE(dup2(descriptor, STDERR_FILENO), -1); }

  // The next line that is written.
  std::string line() {
    std::string text;
    char c = 0;
    while (read(m_pipe[0], &c, 1) == 1 && c != '\n') text += c;
    return text;
  }

  // What was written and not read yet.
  std::string rest() {
    fcntl(m_pipe[0], F_SETFL, O_NONBLOCK);
    std::string text(4096, '\0');
    const ssize_t size = read(m_pipe[0], text.data(), text.size());
    text.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return text;
  }

 private:
  std::array<int, 2> m_pipe{};
  int m_before = -1;
};

constexpr Progress::Timing s_quick{milliseconds(20), milliseconds(1)};

TEST_F(ElsewhereTest, LinesComeAgainAndAgain) {
  Progress progress(s_quick);
  progress.begin("writing", "rows", 10);
  EXPECT_EQ(line(), "tsl-address-map: writing: 0 of 10 rows");
  progress.add(4);
  std::string now = line();
  while (now.find("writing: 0 ") != std::string::npos) now = line();
  EXPECT_EQ(now, "tsl-address-map: writing: 4 of 10 rows");
  progress.begin("looking", "rows");
  while (now.find("writing") != std::string::npos) now = line();
  EXPECT_EQ(now, "tsl-address-map: looking: 0 rows");
  progress.setTotal(3);
  while (now.find("of") == std::string::npos) now = line();
  EXPECT_EQ(now, "tsl-address-map: looking: 0 of 3 rows");
}

TEST_F(ElsewhereTest, ControlCharactersOfANameAreEscaped) {
  Progress progress(s_quick);
  progress.begin("checking \x1b[31m", "rows");
  EXPECT_EQ(line(), "tsl-address-map: checking \\x1b[31m: 0 rows");
}

TEST_F(ElsewhereTest, WorkThatDoesNotTakeLongIsNotTold) {
  {
    Progress progress;
    progress.begin("writing", "rows", 10);
    progress.set(10);
    const Progress::Hidden hidden;
    const Progress::Hidden nested;
  }
  EXPECT_THAT(rest(), IsEmpty());
}

TEST_F(ElsewhereTest, NothingIsToldAfterTheEnd) {
  Progress progress(s_quick);
  progress.begin("writing", "rows", 10);
  EXPECT_THAT(line(), StartsWith("tsl-address-map: "));
  Progress::endCurrent();
  rest();
  std::this_thread::sleep_for(5 * s_quick.every);
  EXPECT_THAT(rest(), IsEmpty());
  progress.end();
}

TEST_F(ElsewhereTest, WhereNothingCanBeWrittenNothingIs) {
  const int nowhere = open("/dev/null", O_RDONLY | O_CLOEXEC);
  lead(nowhere);
  close(nowhere);
  {
    Progress progress(s_quick);
    progress.begin("writing", "rows", 10);
    std::this_thread::sleep_for(2 * s_quick.first);
  }
  EXPECT_THAT(rest(), IsEmpty());
}

}  // namespace
}  // namespace Tessel::Tool
