// Log messages as test results: a test takes the messages that it expects, and any other message
// fails it.
#ifndef TSL_TESTS_SUPPORT_EXPECTEDLOG_H
#define TSL_TESTS_SUPPORT_EXPECTEDLOG_H

#include <vector>

#include "base/Logger.h"

namespace Tessel::Testing {

// The messages logged since the running test began, or since the last call. Whatever is not taken
// when the test ends fails it.
std::vector<Logger::Message> takeLog();

// Ends the capture of the running test; for a child process that tests where messages go.
void stopWatchingLog();

// Makes every test of this process start with an empty log, and fail when messages are left over.
void watchLog();

}  // namespace Tessel::Testing

#endif
