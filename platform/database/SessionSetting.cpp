// A setting for all sessions of a program.
#include "database/SessionSetting.h"

#include <atomic>

namespace Tessel::Database {

namespace {

std::atomic<bool> s_waits{false};

}  // namespace

void waitForOtherNodes(bool wanted) noexcept {
  s_waits = wanted;
}

bool waitsForOtherNodes() noexcept {
  return s_waits;
}

}  // namespace Tessel::Database
