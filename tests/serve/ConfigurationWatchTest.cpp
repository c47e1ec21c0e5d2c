// The image follows the configuration, and stays when the files, or the process that reads them,
// come to harm.
#include "serve/image/ConfigurationWatch.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cmf/Writer.h"
#include "serve/image/ConfigurationHelper.h"
#include "support/ErrorOutput.h"
#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::Not;

class ConfigurationWatchTest : public testing::Test {
 protected:
  void SetUp() override { m_settings.refresh = milliseconds(40); }

  // Begins to watch what TSL_CMF_PATH names.
  void watch(ConfigurationWatch::Helper helper = {{TSL_CONFIGURATION_PROGRAM}}) {
    m_watch =
        std::make_unique<ConfigurationWatch>(m_settings, m_configuration, m_log, std::move(helper));
  }

  // A helper that runs `script`.
  static ConfigurationWatch::Helper shell(const std::string& script) {
    return {{"/bin/sh", "-c", script}, milliseconds(2000)};
  }

  [[nodiscard]] bool hasUser(const std::string& address) const {
    const ConfigurationPointer image = m_configuration.image();
    return image != nullptr && image->hasUser(address);
  }
  // Waits until the configuration was read by a look from now on.
  [[nodiscard]] bool isRead() const {
    const Clock::time_point start = Clock::now();
    return becomes([&] {
      const auto age = m_configuration.age(Clock::now());
      return age && Clock::now() - *age > start;
    });
  }
  // Waits for `condition`, twenty seconds at most; what it was at the end.
  static bool becomes(const std::function<bool()>& condition) {
    const Clock::time_point limit = Clock::now() + std::chrono::seconds(20);
    while (!condition()) {
      if (Clock::now() > limit) return false;
      std::this_thread::sleep_for(milliseconds(2));
    }
    return true;
  }
  // Waits until there is another helper than `pid`.
  [[nodiscard]] bool hasOtherThan(pid_t pid) const {
    return becomes([&] { return m_watch->helper() != 0 && m_watch->helper() != pid; });
  }
  // Waits until something is logged.
  std::string logged() {
    EXPECT_TRUE(becomes([this] {
      m_log.flush();
      m_logged += log();
      return !m_logged.empty();
    }));
    return std::exchange(m_logged, "");
  }
  std::string log() {
    m_log.flush();
    return m_error.take();
  }

  Testing::ErrorOutput m_error;
  Settings m_settings;
  Configuration m_configuration;
  Log m_log{LogLevel::Warning};
  std::string m_logged;
  std::unique_ptr<ConfigurationWatch> m_watch;
};

TEST_F(ConfigurationWatchTest, TheImageFollowsTheConfiguration) {
  const ServedDomains served;
  watch();
  EXPECT_TRUE(becomes([this] { return hasUser("bob@d.example"); }));
  EXPECT_FALSE(hasUser("cleo@d.example"));
  {
    CMF::Writer writer;
    writer.addUser("d.example", "cleo", CMF::MailUserMailbox);
    writer.commit();
  }
  EXPECT_TRUE(becomes([this] { return hasUser("cleo@d.example"); }));
  const ConfigurationPointer image = m_configuration.image();
  EXPECT_TRUE(isRead());
  EXPECT_EQ(m_configuration.image(), image);
}

TEST_F(ConfigurationWatchTest, AHelperThatIsKilledIsReplaced) {
  const ServedFiles files;
  watch();
  EXPECT_TRUE(isRead());
  for (int i = 0; i < 3; ++i) {
    const pid_t pid = m_watch->helper();
    kill(pid, SIGKILL);
    EXPECT_TRUE(hasOtherThan(pid));
    EXPECT_TRUE(isRead());
  }
  const std::string text = logged();
  EXPECT_THAT(text, HasSubstr("cannot be read: the process that reads it was ended by signal 9; "));
  EXPECT_THAT(text, HasSubstr("can be read again"));
}

TEST_F(ConfigurationWatchTest, AHelperThatHangsIsReplaced) {
  const ServedFiles files;
  watch({{TSL_CONFIGURATION_PROGRAM}, milliseconds(300)});
  EXPECT_TRUE(isRead());
  const pid_t pid = m_watch->helper();
  kill(pid, SIGSTOP);
  EXPECT_TRUE(hasOtherThan(pid));
  EXPECT_EQ(kill(pid, 0), -1);
  EXPECT_TRUE(isRead());
  EXPECT_THAT(logged(), HasSubstr("the process that reads it has not answered for 300 ms; "));
}

TEST_F(ConfigurationWatchTest, WhatIsNoAnswerIsNeverAnImage) {
  const ServedFiles files;
  const std::string same = encoded({static_cast<char>(HelperFrame::Same), ""});
  const std::string odd = encoded({'z', ""});
  const std::string broken = encoded({static_cast<char>(HelperFrame::Copy), "mbob"});
  // The same message comes once: "same" before a copy is no answer either.
  for (const std::string& bytes : {std::string(100, 'x'), odd, broken, same}) {
    const Testing::ScratchFile file;
    file.write(bytes);
    watch(shell("head -c 1 >/dev/null; cat " + file.path() + " >&0; exec sleep 10"));
    const bool isOver =
        becomes([this] { return m_watch->helper() != 0; }) && hasOtherThan(m_watch->helper());
    EXPECT_TRUE(isOver);
    EXPECT_EQ(m_configuration.image(), nullptr);
    m_watch.reset();
    m_log.flush();
  }
  const std::string text = logged();
  EXPECT_THAT(text, HasSubstr("a message is too long"));
  EXPECT_THAT(text, HasSubstr("the process that reads it sent what is no answer; "));
  EXPECT_THAT(text, HasSubstr("the copy of the configuration is malformed"));
  EXPECT_THAT(text, Not(HasSubstr("has not answered")));
}

TEST_F(ConfigurationWatchTest, APauseThatGrowsComesBeforeEachNewHelper) {
  const ServedFiles files;
  const Testing::ScratchFile starts;
  watch(shell("echo >>" + starts.path()));
  EXPECT_THAT(logged(), HasSubstr("the process that reads it ended with status 0; "));
  EXPECT_TRUE(becomes([this] { return m_watch->helper() == 0; }));
  std::this_thread::sleep_for(milliseconds(1000));
  // After 0, 100, 300 and 700 ms.
  EXPECT_LE(starts.text().size(), 4U);
  EXPECT_GE(starts.text().size(), 2U);
}

TEST_F(ConfigurationWatchTest, AProgramThatIsNotThereIsReported) {
  const ServedFiles files;
  watch({{"/nonexistent/program"}});
  EXPECT_THAT(logged(), HasSubstr("/nonexistent/program: No such file"));
}

using Harm = void (*)(const ServedFiles& files);

class HarmedFiles : public ConfigurationWatchTest, public testing::WithParamInterface<Harm> {};

TEST_P(HarmedFiles, LeaveTheImageAndAreReadAgainWhenTheyAreRestored) {
  const ServedFiles files;
  watch();
  EXPECT_TRUE(isRead());
  GetParam()(files);
  const std::string text = logged();
  EXPECT_THAT(text, HasSubstr("cannot be read: "));
  EXPECT_THAT(text, HasSubstr("; what was read last still answers"));
  EXPECT_TRUE(hasUser("bob@d.example"));
  files.restore();
  EXPECT_TRUE(isRead());
  EXPECT_TRUE(hasUser("bob@d.example"));
  EXPECT_THAT(logged(), HasSubstr("can be read again"));
}

void s_emptied(const ServedFiles& files) {
  std::filesystem::resize_file(files.data(), 0);
}
void s_cut(const ServedFiles& files) {
  std::filesystem::resize_file(files.data(), 5000);
}
void s_remove(const ServedFiles& files) {
  std::filesystem::remove(files.data());
}
void s_overwrite(const ServedFiles& files) {
  const auto size = std::filesystem::file_size(files.data());
  std::ofstream(files.data(), std::ios::binary) << std::string(size, '\0');
}
void s_overwriteInPlace(const ServedFiles& files) {
  const auto size = std::filesystem::file_size(files.data());
  std::fstream(files.data(), std::ios::binary | std::ios::in | std::ios::out)
      << std::string(size, '\xff');
}

INSTANTIATE_TEST_SUITE_P(ConfigurationWatch, HarmedFiles,
                         testing::Values(s_emptied, s_cut, s_remove, s_overwrite,
                                         s_overwriteInPlace));

// The content of a data.mdb that lists its only mail user 1,000 times. A page of LMDB has
// at 12 where the offsets of its records end; 2 bytes each, they begin at 16.
std::string s_endlessList() {
  constexpr std::uint16_t count = 1000;
  constexpr std::size_t pageSize = 4096;
  const Testing::ScratchFile scratch;
  {
    const ConfigurationDirectory directory(scratch.directory());
    CMF::Writer writer;
    writer.addDomain("d.example");
    writer.addUser("d.example", "bob", CMF::MailUserMailbox);
    writer.commit();
  }
  std::ifstream file(scratch.directory() + "/data.mdb", std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(file)), {});
  char* const page = bytes.data() + bytes.rfind("bob") / pageSize * pageSize;
  std::uint16_t end{};
  std::memcpy(&end, page + 12, sizeof(end));
  std::array<std::uint16_t, 2> last{};  // The offsets of the list, and of the user.
  std::memcpy(last.data(), page + end - sizeof(last), sizeof(last));
  for (int i = 0; i < count; ++i, end += sizeof(last[1])) {
    std::memcpy(page + end, &last[1], sizeof(last[1]));
  }
  std::memcpy(page + 12, &end, sizeof(end));
  // Behind the 8 bytes of its header and the 8 of its key, the list has the number of its rows.
  const std::int64_t rows = count;
  std::memcpy(page + last[0] + 16, &rows, sizeof(rows));
  return bytes;
}

TEST_F(ConfigurationWatchTest, AListWithoutEndIsNotReadToItsEnd) {
  const ServedFiles files;
  std::ofstream(files.data(), std::ios::binary) << s_endlessList();
  watch();
  EXPECT_THAT(logged(), HasSubstr("cannot be read: it lists more mail users than it can hold; "));
  EXPECT_EQ(m_configuration.image(), nullptr);
}

TEST_F(ConfigurationWatchTest, AnEmptiedLockFileIsMadeAgain) {
  const ServedFiles files;
  watch();
  EXPECT_TRUE(isRead());
  const pid_t pid = m_watch->helper();
  std::filesystem::resize_file(files.lock(), 0);
  EXPECT_TRUE(hasOtherThan(pid));
  EXPECT_TRUE(isRead());
  EXPECT_THAT(logged(),
              HasSubstr("data.mdb or lock.mdb is damaged, or was truncated or overwritten while it "
                        "was in use; restore the directory from a copy that mdb_copy made, or load "
                        "the configuration again"));
}

TEST_F(ConfigurationWatchTest, TheMessageNamesTheDirectoryAndWhatIsWrongThere) {
  const ServedFiles files;
  std::filesystem::remove(files.lock());
  watch();
  const std::string text = logged();
  EXPECT_THAT(text, HasSubstr("the configuration of domains and mail users in " +
                              files.data().substr(0, files.data().rfind('/'))));
  EXPECT_THAT(text, HasSubstr(" cannot be read: lock.mdb is missing in "));
  EXPECT_THAT(text, HasSubstr("what needs it is answered TEMP"));
}

TEST_F(ConfigurationWatchTest, AHostWithoutAConfigurationIsLeftInPeaceUntilSomebodyAsks) {
  const ConfigurationDirectory none("/nonexistent/configuration");
  watch();
  EXPECT_TRUE(becomes([this] { return m_watch->helper() != 0; }));
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_FALSE(m_configuration.isNeeded());
  EXPECT_EQ(log(), "");
  EXPECT_EQ(m_configuration.use(m_settings, Clock::now()), nullptr);
  EXPECT_THAT(logged(), HasSubstr("No configuration in /nonexistent/configuration"));
}

TEST_F(ConfigurationWatchTest, AReloadReadsWithANewHelper) {
  const ServedFiles files;
  watch();
  EXPECT_TRUE(isRead());
  const pid_t pid = m_watch->helper();
  m_watch->reload();
  EXPECT_TRUE(hasOtherThan(pid));
  EXPECT_TRUE(isRead());
  EXPECT_EQ(log(), "");
}

TEST_F(ConfigurationWatchTest, AReloadAndAnEndDoNotWaitForTheNextLook) {
  const ServedFiles files;
  m_settings.refresh = std::chrono::hours(1);  // A second between two looks.
  const auto isReadSince = [this](Clock::time_point start) {
    return becomes([&] {
      const auto age = m_configuration.age(Clock::now());
      return age && Clock::now() - *age >= start;
    });
  };
  Clock::duration reload = std::chrono::hours(1);
  Clock::duration end = reload;
  // The best of some: others use the processors too.
  for (int i = 0; i < 5 && std::max(reload, end) >= milliseconds(400); ++i) {
    Clock::time_point start = Clock::now();
    watch();
    EXPECT_TRUE(isReadSince(start));
    start = Clock::now();
    m_watch->reload();
    EXPECT_TRUE(isReadSince(start));
    reload = Clock::now() - start;
    start = Clock::now();
    m_watch.reset();
    end = Clock::now() - start;
  }
  EXPECT_LT(reload, milliseconds(400));
  EXPECT_LT(end, milliseconds(400));
}

TEST_F(ConfigurationWatchTest, WhatAHelperDidNotSendWholeIsForgottenWithIt) {
  const ServedFiles files;
  const Testing::ScratchFile half;
  half.write(encoded({static_cast<char>(HelperFrame::Copy), "half"}).substr(0, 10));
  const std::string program = TSL_CONFIGURATION_PROGRAM;
  watch(shell("[ -s " + half.path() + " ] || exec " + program + "; head -c 1 >/dev/null; cat " +
              half.path() + " >&0; : >" + half.path()));
  EXPECT_TRUE(isRead());
  EXPECT_TRUE(hasUser("bob@d.example"));
}

TEST_F(ConfigurationWatchTest, WhatWasReadIsSaidOnce) {
  const ServedDomains served;
  Log log(LogLevel::Info);
  {
    const ConfigurationWatch watch(m_settings, m_configuration, log, {{TSL_CONFIGURATION_PROGRAM}});
    EXPECT_TRUE(isRead());
    CMF::Writer writer;
    writer.addUser("d.example", "cleo", CMF::MailUserMailbox);
    writer.commit();
    EXPECT_TRUE(becomes([this] { return hasUser("cleo@d.example"); }));
  }
  log.flush();
  EXPECT_THAT(m_error.take(),
              testing::EndsWith("the configuration: 3 domains and 5 mail users read\n"));
}

}  // namespace
}  // namespace Tessel::Serve
