// Log messages as test results.
#include "support/ExpectedLog.h"

#include <memory>

#include <gtest/gtest.h>

namespace Tessel::Testing {

namespace {

std::unique_ptr<Logger::Capture> s_capture;

class LogListener : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo& /*test*/) override {
    s_capture = std::make_unique<Logger::Capture>();
  }

  void OnTestEnd(const testing::TestInfo& /*test*/) override {
    for (const Logger::Message& message : s_capture->take()) {
      ADD_FAILURE() << "undeclared log message " << std::hex << message.code << ": "
                    << message.text;
    }
    s_capture.reset();
  }
};

}  // namespace

std::vector<Logger::Message> takeLog() {
  return s_capture->take();
}

void stopWatchingLog() {
  s_capture.reset();
}

void watchLog() {
  // Appended listeners run after the printer at the start and before it at the end, so a left-over
  // message still counts for its test.
  testing::UnitTest::GetInstance()->listeners().Append(new LogListener);
}

}  // namespace Tessel::Testing
