// What the lookup service counts, for Prometheus. Never contains an address.
#ifndef TSL_TOOLS_SERVE_BASE_METRICS_H
#define TSL_TOOLS_SERVE_BASE_METRICS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "base/Guarded.h"
#include "serve/base/Answer.h"
#include "serve/base/Map.h"
#include "serve/base/Settings.h"

namespace prometheus {
class Counter;
class Gauge;
class Histogram;
class Registry;
}  // namespace prometheus

namespace Tessel::Serve {

// Any thread may call any operation.
class Metrics {
 public:
  Metrics();
  ~Metrics();
  Metrics(const Metrics&) = delete;
  Metrics& operator=(const Metrics&) = delete;

  // A request was answered.
  void answered(Map map, Result result, Clock::duration latency);
  // An answer was taken from the cache of answers.
  void cacheHit();
  // An answer came from an image that cannot be compared with its table now.
  void staleAnswer();
  // The database of this host is read from now on; empty: none can be asked.
  void databaseHost(const std::string& host);
  // The database did not answer.
  void databaseError();
  // How the connection to the database is: `isEncrypted`, and with a server that is known for sure.
  void databaseConnected(bool isEncrypted, bool isVerified);
  // A table was reread, or could not be.
  void rebuilt(Clock::duration took);
  void rebuildFailed();
  // A connection was opened or closed.
  void connectionOpened();
  void connectionClosed();
  // A connection was closed because of what it sent, or did not send or read in time.
  void malformedRequest();
  void timedOut();
  // There were as many connections as may be, so one was closed for a new one.
  void madeRoom();

  // The state of a table: its rows, those that are left out, and how old the image is.
  void tableState(const std::string& sqlName, std::size_t rows, std::size_t leftOut,
                  Clock::duration age);
  // The table is not served any more.
  void forgetTable(const std::string& sqlName);

  // So many lines of the log were lost up to now.
  void linesLost(std::uint64_t lines);

  // How many bytes are in use for `use`.
  void memoryState(const char* use, std::size_t bytes);

  // All of it in the text format of Prometheus.
  [[nodiscard]] std::string text() const;

 private:
  struct Families;

  std::unique_ptr<prometheus::Registry> m_registry;
  std::unique_ptr<Guarded<Families>> m_families;
  std::array<std::array<prometheus::Counter*, s_results>, s_maps> m_requests{};
  prometheus::Histogram* m_latency;
  prometheus::Counter* m_cacheHits;
  prometheus::Counter* m_staleAnswers;
  prometheus::Counter* m_databaseErrors;
  prometheus::Gauge* m_databaseEncrypted;
  prometheus::Gauge* m_databaseVerified;
  prometheus::Counter* m_rebuildFailures;
  prometheus::Histogram* m_rebuilds;
  prometheus::Gauge* m_connections;
  prometheus::Counter* m_accepted;
  prometheus::Counter* m_malformed;
  prometheus::Counter* m_timeouts;
  prometheus::Counter* m_madeRoom;
  prometheus::Gauge* m_linesLost;
};

}  // namespace Tessel::Serve

#endif
