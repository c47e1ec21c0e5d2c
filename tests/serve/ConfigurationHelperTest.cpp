// The process that reads the configuration: what it answers, and that it leaves alone.
#include "serve/image/ConfigurationHelper.h"

#include <sys/socket.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "serve/image/Frame.h"
#include "serve/image/HelperProcess.h"
#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using testing::HasSubstr;

class ConfigurationHelperTest : public testing::Test {
 protected:
  // The answer to one question.
  Frame ask() {
    EXPECT_EQ(send(m_helper.descriptor(), "?", 1, MSG_NOSIGNAL), 1);
    return answer();
  }
  // The next answer, without the signs of life before it.
  Frame answer() {
    while (true) {
      if (const auto frame = m_frames.next()) {
        if (frame->kind != static_cast<char>(HelperFrame::Reading)) return *frame;
        ++m_signs;
        continue;
      }
      char buffer[4096];
      const ssize_t size = recv(m_helper.descriptor(), buffer, sizeof(buffer), 0);
      if (size <= 0) return {'-', "no answer"};
      m_frames.add({buffer, static_cast<std::size_t>(size)});
    }
  }
  HelperFrame kind() { return static_cast<HelperFrame>(ask().kind); }

  // Of the file, which is written in place.
  [[nodiscard]] std::string content() const {
    std::ostringstream bytes;
    bytes << std::ifstream(m_data, std::ios::binary).rdbuf();
    return bytes.str();
  }
  void overwrite(const std::string& content) const {
    std::fstream(m_data, std::ios::binary | std::ios::in | std::ios::out) << content;
  }
  // Two commits: of the two states in a file, the old one is then where the newest is expected.
  static void addTwoUsers() {
    for (const char* name : {"cleo", "dora"}) {
      CMF::Writer writer;
      writer.addUser("d.example", name, CMF::MailUserMailbox);
      writer.commit();
    }
  }

  const ServedDomains m_served;
  const std::string m_data = m_served.directory() + "/data.mdb";
  HelperProcess m_helper{{TSL_CONFIGURATION_PROGRAM}};
  FrameReader m_frames{s_longestCopy};
  int m_signs = 0;  // Of life.
};

TEST_F(ConfigurationHelperTest, SendsACopyAndThenWhatHasChanged) {
  const Frame first = ask();
  EXPECT_EQ(first.kind, static_cast<char>(HelperFrame::Copy));
  EXPECT_EQ(first.text, copyConfiguration());
  EXPECT_EQ(kind(), HelperFrame::Same);
  CMF::Writer writer;
  writer.addUser("d.example", "cleo", CMF::MailUserMailbox);
  writer.commit();
  const Frame second = ask();
  EXPECT_EQ(second.kind, static_cast<char>(HelperFrame::Copy));
  EXPECT_THAT(second.text, HasSubstr("mcleo"));
  EXPECT_EQ(kind(), HelperFrame::Same);
}

TEST_F(ConfigurationHelperTest, SaysWhyItCannotRead) {
  std::filesystem::remove(m_data);
  const Frame frame = ask();
  EXPECT_EQ(frame.kind, static_cast<char>(HelperFrame::Failed));
  EXPECT_THAT(frame.text, HasSubstr("No configuration in"));
}

TEST_F(ConfigurationHelperTest, SaysWhenTheFileStaysAnOlderOne) {
  const std::string backup = content();
  addTwoUsers();
  overwrite(backup);
  const Frame frame = ask();
  EXPECT_EQ(frame.kind, static_cast<char>(HelperFrame::Failed));
  EXPECT_EQ(frame.text,
            "data.mdb was overwritten while programs use it: end them, except for this service, or"
            " rename a whole directory into place");
  // For a second it looks again every 20 ms, and says so: the service sees that it is alive.
  EXPECT_GT(m_signs, 5);
  EXPECT_LE(m_signs, 51);
}

// As when a backup is copied over the file and then, not too late, what was there before.
TEST_F(ConfigurationHelperTest, WaitsForWhoWritesIntoTheFile) {
  const std::string backup = content();
  addTwoUsers();
  const std::string newest = content();
  overwrite(backup);
  EXPECT_EQ(send(m_helper.descriptor(), "?", 1, MSG_NOSIGNAL), 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  overwrite(newest);
  const Frame frame = answer();
  EXPECT_EQ(frame.kind, static_cast<char>(HelperFrame::Copy)) << frame.text;
  EXPECT_THAT(frame.text, HasSubstr("mdora"));
}

TEST_F(ConfigurationHelperTest, EndsWithItsSocketAndNotBySignalsForTheService) {
  EXPECT_EQ(kind(), HelperFrame::Copy);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) kill(m_helper.pid(), signal);
  EXPECT_EQ(kind(), HelperFrame::Same);
  shutdown(m_helper.descriptor(), SHUT_RDWR);
  const int status = m_helper.end();
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(ConfigurationHelper, FilesThatKillWhoReadsThemEndItWithAStatusOfItsOwn) {
  const ServedFiles files;
  HelperProcess helper({TSL_CONFIGURATION_PROGRAM});
  char buffer[4096];
  send(helper.descriptor(), "?", 1, MSG_NOSIGNAL);
  EXPECT_GT(recv(helper.descriptor(), buffer, sizeof(buffer), 0), 0);
  std::filesystem::resize_file(files.lock(), 0);
  send(helper.descriptor(), "?", 1, MSG_NOSIGNAL);
  EXPECT_EQ(recv(helper.descriptor(), buffer, sizeof(buffer), 0), 0);
  EXPECT_EQ(WEXITSTATUS(helper.end()), s_damagedStatus);
}

}  // namespace
}  // namespace Tessel::Serve
