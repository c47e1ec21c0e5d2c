// HostHealth: a table of atomic numbers.
#include "database/HostHealth.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>

namespace Tessel::Database {

namespace {

using std::chrono::milliseconds;
using Clock = HostHealth::Clock;

constexpr milliseconds s_firstPause{500};
constexpr milliseconds s_longestPause{30'000};

struct Record {
  std::atomic<std::size_t> key{0};   // Hash of the host; 0: unused.
  std::atomic<Clock::rep> until{0};  // When the host may be tried again; 0: it is good.
  std::atomic<unsigned int> failures{0};
};

std::array<Record, 64> s_records;

// Since when all hosts refuse; 0: they do not.
std::atomic<Clock::rep> s_refusing{0};

// The record of `host`, or null when there is no room for it.
Record* s_find(const std::string& host) {
  const std::size_t key = std::max<std::size_t>(1, std::hash<std::string>()(host));
  for (std::size_t step = 0; step < s_records.size(); ++step) {
    Record& record = s_records[(key + step) % s_records.size()];
    std::size_t found = 0;
    if (record.key.compare_exchange_strong(found, key) || found == key) return &record;
  }
  return nullptr;
}

// `pause`, longer or shorter by up to a quarter.
Clock::duration s_varied(Clock::duration pause, Clock::time_point now) {
  const auto count = static_cast<std::uint64_t>(now.time_since_epoch().count());
  const std::uint64_t mixed = (count + static_cast<std::uint64_t>(getpid())) * 0x9e3779b97f4a7c15U;
  const auto percent = static_cast<Clock::rep>(75 + (mixed >> 32U) % 51);
  return pause * percent / 100;
}

}  // namespace

HostHealth::State HostHealth::stateOf(const std::string& host, Clock::time_point now) {
  const Record* const record = s_find(host);
  const Clock::rep until = record == nullptr ? 0 : record->until.load();
  if (until == 0) return State::Good;
  return now.time_since_epoch().count() < until ? State::Bad : State::Due;
}

Clock::time_point HostHealth::dueTime(const std::string& host) {
  const Record* const record = s_find(host);
  return Clock::time_point(Clock::duration(record == nullptr ? 0 : record->until.load()));
}

void HostHealth::worked(const std::string& host) {
  Record* const record = s_find(host);
  if (record == nullptr) return;
  record->failures = 0;
  record->until = 0;
}

void HostHealth::failed(const std::string& host, Clock::time_point now) {
  Record* const record = s_find(host);
  if (record == nullptr) return;
  const unsigned int times = std::min(record->failures.fetch_add(1), 16U);
  const auto pause = std::min(s_firstPause * (1U << times), s_longestPause);
  record->until = (now + s_varied(pause, now)).time_since_epoch().count();
}

Clock::duration HostHealth::allRefuse(Clock::time_point now) {
  Clock::rep since = 0;
  if (s_refusing.compare_exchange_strong(since, now.time_since_epoch().count())) return {};
  return now.time_since_epoch() - Clock::duration(since);
}

void HostHealth::allWork() {
  if (s_refusing != 0) s_refusing = 0;
}

void HostHealth::forgetAll() {
  s_refusing = 0;
  for (Record& record : s_records) {
    record.key = 0;
    record.until = 0;
    record.failures = 0;
  }
}

}  // namespace Tessel::Database
