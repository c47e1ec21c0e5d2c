// Which aliases were asked for: what the lookups note, and what becomes of it in the file.
#include "serve/image/AliasUse.h"

#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "serve/answer/Lookup.h"
#include "support/ErrorOutput.h"
#include "support/ScratchFile.h"
#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

class AliasUseTest : public testing::Test {
 protected:
  AliasUseTest() {
    m_settings.countUse = m_file.path();
    publish({{"team@d.example", "b@d.example"},
             {"list@d.example", "team@d.example"},
             {"loop@d.example", "loop@d.example"},
             {"broken@d.example", "@"},
             {"*@d.example", "rest@d.example"}});
    publishRows(*m_tables.add("alias_second"), {{"Team@D.example", "c@d.example"}});
    publishRows(*m_tables.add("mask"), {{"team@d.example", "t@out.example"}});
    m_tables.configuration().publish(ServedDomains().image(), Clock::now());
  }

  void publish(const Rows& rows) { publishRows(*m_tables.add("alias"), rows); }

  // Asks for each of `requests` in a new lookup, and hands over what was noted.
  void ask(const std::vector<std::string>& requests) {
    Lookup lookup(m_settings, m_tables, m_metrics, m_log);
    for (const std::string& request : requests) lookup.reply(request);
    lookup.sweep(Clock::now());
  }

  // The file without its first line.
  [[nodiscard]] std::string lines() const {
    const std::string text = m_file.text();
    return text.substr(text.find('\n') + 1);
  }

  Testing::ScratchFile m_file;
  Settings m_settings;
  Tables m_tables{m_settings};
  Metrics m_metrics;
  Log m_log{LogLevel::Error, 0ms};
};

TEST_F(AliasUseTest, OnlyRowsThatTheAliasMapWasAskedForAreNoted) {
  m_settings.catchAll = true;
  ask({"alias team@d.example", "alias.second TEAM+tag@d.example", "alias broken@d.example",
       "alias nobody@out.example", "mask_public team@d.example", "mask_private t@out.example",
       "sender_login list@d.example", "mailbox bob@d.example", "alias bob@d.example", "alias x"});
  // Whoever asks for what is not there does not fill the memory.
  EXPECT_THAT(m_tables.takeAsked(),
              UnorderedElementsAre("alias broken@d.example", "alias team@d.example",
                                   "alias_second team@d.example"));
}

TEST_F(AliasUseTest, TheCatchAllIsNotedWhenItAnswers) {
  m_settings.catchAll = true;
  AliasUse use(m_settings, m_tables, m_log);
  ask({"alias nobody@d.example"});
  use.finish();
  EXPECT_EQ(lines(), "alias *@d.example\n");
}

TEST_F(AliasUseTest, WithoutAFileNothingIsNoted) {
  m_settings.countUse.clear();
  ask({"alias team@d.example"});
  EXPECT_THAT(m_tables.takeAsked(), IsEmpty());
}

TEST_F(AliasUseTest, TheFileIsWrittenAtOnceThenOnceAMinuteWhenSomethingIsNewAndOnceAnHour) {
  AliasUse use(m_settings, m_tables, m_log);
  const Clock::time_point start = Clock::now();
  use.testOnlyLook(start);
  EXPECT_THAT(m_file.text(), EndsWith(" count 0\n"));
  struct stat status {};
  ASSERT_EQ(stat(m_file.path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  const auto isWrittenAt = [&](Clock::duration time) {
    std::filesystem::remove(m_file.path());
    use.testOnlyLook(start + time);
    return std::filesystem::exists(m_file.path());
  };
  EXPECT_FALSE(isWrittenAt(minutes(59)));
  ask({"alias team@d.example"});
  EXPECT_TRUE(isWrittenAt(minutes(59)));
  EXPECT_EQ(lines(), "alias team@d.example\n");
  ask({"alias list@d.example"});
  EXPECT_FALSE(isWrittenAt(minutes(59) + 59s));
  EXPECT_TRUE(isWrittenAt(minutes(60)));
  ask({"alias list@d.example", "alias team@d.example"});
  EXPECT_FALSE(isWrittenAt(minutes(119)));
  EXPECT_TRUE(isWrittenAt(minutes(120)));
}

TEST_F(AliasUseTest, AFileThatCannotBeWrittenIsReportedOnceUntilItCan) {
  Testing::ErrorOutput error;
  Log log(LogLevel::Error, 0ms);
  AliasUse use(m_settings, m_tables, log);
  const Clock::time_point start = Clock::now();
  const auto logAt = [&](Clock::duration time) {
    use.testOnlyLook(start + time);
    log.flush();
    return error.take();
  };
  const std::string inTheWay = m_file.path() + ".new";
  std::filesystem::create_directory(inTheWay);
  EXPECT_THAT(logAt(0min), HasSubstr("error: the use of aliases is not saved: " + inTheWay));
  EXPECT_EQ(logAt(hours(1)), "");
  std::filesystem::remove(inTheWay);
  EXPECT_EQ(logAt(hours(2)), "");
  EXPECT_THAT(m_file.text(), EndsWith(" count 0\n"));
  std::filesystem::create_directory(inTheWay);
  EXPECT_THAT(logAt(hours(3)), HasSubstr("the use of aliases is not saved: "));
}

TEST_F(AliasUseTest, TheNextServiceGoesOnWithTheFile) {
  m_file.write(
      "tsl-address-map used aliases 1 since 2026-01-02 03:04:05 until 2026-01-03 00:00:00 count 2\n"
      "alias list@d.example\nalias_later x@d.example\n");
  AliasUse use(m_settings, m_tables, m_log);
  ask({"alias team@d.example"});
  use.finish();
  EXPECT_THAT(m_file.text(),
              StartsWith("tsl-address-map used aliases 1 since 2026-01-02 03:04:05"));
  EXPECT_EQ(lines(), "alias list@d.example\nalias team@d.example\nalias_later x@d.example\n");
}

TEST_F(AliasUseTest, ARowThatIsGoneIsLeftOutUnlessItsTableIsInDoubt) {
  m_file.write(
      "tsl-address-map used aliases 1 since 2026-01-02 03:04:05 until 2026-01-03 00:00:00 count 2\n"
      "alias list@d.example\nmask team@d.example\n");
  AliasUse use(m_settings, m_tables, m_log);
  ask({"alias team@d.example", "alias list@d.example", "alias.second team@d.example"});
  m_tables.find("alias")->setState(TableState::Filling);
  publish({{"list@d.example", "b@d.example"}});
  const Clock::time_point start = Clock::now();
  use.testOnlyLook(start);
  EXPECT_EQ(lines(), "alias list@d.example\nalias team@d.example\nalias_second team@d.example\n");
  m_tables.find("alias")->setState(TableState::Good);
  m_tables.remove("alias_second");
  use.testOnlyLook(start + minutes(60));
  EXPECT_EQ(lines(), "alias list@d.example\n");
}

TEST_F(AliasUseTest, ARowThatComesBackIsNotedThoughTheLookupHasKeptItsReply) {
  AliasUse use(m_settings, m_tables, m_log);
  Lookup lookup(m_settings, m_tables, m_metrics, m_log);
  const Rows rows = {{"team@d.example", "b@d.example"}};
  Clock::time_point time = Clock::now();
  for (const char* want : {"", "alias team@d.example\n", "", "alias team@d.example\n"}) {
    publish(*want == '\0' ? Rows{} : rows);
    // The second time it comes from the cache.
    for (int i = 0; i < 2; ++i) lookup.reply("alias team@d.example");
    lookup.sweep(time);
    use.testOnlyLook(time += minutes(60));
    EXPECT_EQ(lines(), want);
  }
}

TEST_F(AliasUseTest, AFileOfOthersStaysAsItIs) {
  Testing::ErrorOutput error;
  const auto isRefused = [&] {
    const std::string before = m_file.text();
    EXPECT_THROW(AliasUse::read(m_file.path()), std::runtime_error);
    AliasUse use(m_settings, m_tables, m_log);
    ask({"alias team@d.example"});
    use.finish();
    m_log.flush();
    EXPECT_THAT(error.take(),
                HasSubstr("error: the use of aliases is not counted: " + m_file.path() + ": "));
    return m_file.text() == before;
  };
  m_file.write("root:x:0:0:root:/root:/bin/bash\n");
  EXPECT_TRUE(isRefused());
  m_file.write("");
  EXPECT_TRUE(isRefused());
  std::filesystem::remove(m_file.path());
  EXPECT_FALSE(AliasUse::read(m_file.path()));
  std::filesystem::permissions(m_file.directory(), std::filesystem::perms(0777));
  EXPECT_TRUE(isRefused());
}

TEST_F(AliasUseTest, AFileThatOthersMayWriteIsRefused) {
  AliasUse(m_settings, m_tables, m_log).finish();
  EXPECT_TRUE(AliasUse::read(m_file.path()));
  std::filesystem::permissions(m_file.path(), std::filesystem::perms(0622));
  EXPECT_THROW(AliasUse::read(m_file.path()), std::runtime_error);
}

TEST_F(AliasUseTest, LookupsHandOverWhileTheFileIsWritten) {
  constexpr int s_rows = 200;
  Rows rows;
  for (int i = 0; i < s_rows; ++i)
    rows.emplace_back(std::to_string(i) + "@d.example", "b@d.example");
  publish(rows);
  AliasUse use(m_settings, m_tables, m_log);
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([this, number] {
      for (int i = number; i < s_rows; i += 4) ask({"alias " + std::to_string(i) + "@d.example"});
    });
  }
  for (int i = 0; i < 20; ++i) {
    use.look();
    publish(rows);
  }
  for (std::thread& thread : threads) thread.join();
  use.finish();
  EXPECT_THAT(m_file.text(), HasSubstr(" count 200\n"));
}

}  // namespace
}  // namespace Tessel::Serve
