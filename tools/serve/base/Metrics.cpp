// What the lookup service counts.
#include "serve/base/Metrics.h"

#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

namespace Tessel::Serve {

namespace {

constexpr const char* s_resultNames[s_results] = {"ok", "notfound", "temp", "perm", "refused"};

// Policies permit, refuse, or do not know.
bool s_hasResult(Map map, Result result) {
  if (map != Map::Policy) return result != Result::Refused;
  return result != Result::NotFound && result != Result::Perm;
}

double s_seconds(Clock::duration duration) {
  return std::chrono::duration<double>(duration).count();
}

prometheus::Counter& s_counter(prometheus::Registry& registry, const char* name, const char* help) {
  return prometheus::BuildCounter().Name(name).Help(help).Register(registry).Add({});
}

prometheus::Gauge& s_gauge(prometheus::Registry& registry, const char* name, const char* help) {
  return prometheus::BuildGauge().Name(name).Help(help).Register(registry).Add({});
}

}  // namespace

// Kept for the values of each table. Under a lock, as values can be removed.
struct Metrics::Families {
  prometheus::Family<prometheus::Gauge>& rows;
  prometheus::Family<prometheus::Gauge>& leftOut;
  prometheus::Family<prometheus::Gauge>& age;
  prometheus::Family<prometheus::Gauge>& memory;
  prometheus::Family<prometheus::Gauge>& host;
  prometheus::Gauge* presentHost = nullptr;
};

Metrics::Metrics() : m_registry(std::make_unique<prometheus::Registry>()) {
  using prometheus::BuildCounter;
  using prometheus::BuildGauge;
  using prometheus::BuildHistogram;
  prometheus::Registry& registry = *m_registry;
  auto& requests = BuildCounter()
                       .Name("tsl_address_map_requests_total")
                       .Help("Requests answered, by map and result")
                       .Register(registry);
  for (std::size_t map = 0; map < s_maps; ++map) {
    for (std::size_t result = 0; result < s_results; ++result) {
      if (!s_hasResult(static_cast<Map>(map), static_cast<Result>(result))) continue;
      m_requests[map][result] =
          &requests.Add({{"map", std::string(s_mapNames[map])}, {"result", s_resultNames[result]}});
    }
  }
  m_latency = &BuildHistogram()
                   .Name("tsl_address_map_request_seconds")
                   .Help("Time from a whole request to its answer")
                   .Register(registry)
                   .Add({}, prometheus::Histogram::BucketBoundaries{
                                1e-6, 2e-6, 5e-6, 1e-5, 2e-5, 5e-5, 1e-4, 1e-3, 1e-2, 0.1, 1});
  m_cacheHits = &s_counter(registry, "tsl_address_map_cache_hits_total",
                           "Requests answered from the cache of answers");
  m_staleAnswers = &s_counter(registry, "tsl_address_map_stale_answers_total",
                              "Requests answered while the table could not be compared");
  m_databaseErrors = &s_counter(registry, "tsl_address_map_database_errors_total",
                                "Attempts to ask the database that failed");
  m_databaseEncrypted = &s_gauge(registry, "tsl_address_map_database_encrypted",
                                 "1 while the connection to the database is encrypted, or else 0");
  m_databaseVerified =
      &s_gauge(registry, "tsl_address_map_database_verified",
               "1 while the certificate of the database server is checked, or else 0");
  m_rebuildFailures = &s_counter(registry, "tsl_address_map_rebuild_failures_total",
                                 "Tables that could not be read");
  m_rebuilds = &BuildHistogram()
                    .Name("tsl_address_map_rebuild_seconds")
                    .Help("Time that reading a whole table took")
                    .Register(registry)
                    .Add({}, prometheus::Histogram::BucketBoundaries{0.01, 0.1, 0.5, 1, 5, 30});
  m_connections = &s_gauge(registry, "tsl_address_map_connections", "Connections of mail servers");
  m_accepted = &s_counter(registry, "tsl_address_map_connections_total", "Connections accepted");
  m_malformed = &s_counter(registry, "tsl_address_map_malformed_requests_total",
                           "Connections ended because what they sent was no request");
  m_timeouts = &s_counter(registry, "tsl_address_map_timeouts_total",
                          "Connections ended because nothing came or went in time");
  m_madeRoom = &s_counter(registry, "tsl_address_map_connections_dropped_total",
                          "Connections ended because there was no room for a new one");
  m_linesLost = &s_gauge(registry, "tsl_address_map_log_lines_lost",
                         "Lines of the log that were lost because they could not be written");
  BuildGauge()
      .Name("tsl_address_map_build_info")
      .Help("The version, as a label")
      .Register(registry)
      .Add({{"version", TSL_VERSION}})
      .Set(1);
  m_families = std::make_unique<Guarded<Families>>(
      Families{BuildGauge()
                   .Name("tsl_address_map_rows")
                   .Help("Rows that requests are answered from")
                   .Register(registry),
               BuildGauge()
                   .Name("tsl_address_map_rows_left_out")
                   .Help("Rows that cannot be read")
                   .Register(registry),
               BuildGauge()
                   .Name("tsl_address_map_data_age_seconds")
                   .Help("Time since the data was last known to be that of the table")
                   .Register(registry),
               BuildGauge()
                   .Name("tsl_address_map_memory_bytes")
                   .Help("Memory of images, and of the answers and pages that are kept")
                   .Register(registry),
               BuildGauge()
                   .Name("tsl_address_map_database_host")
                   .Help("The host whose database is read, as a label")
                   .Register(registry)});
}

Metrics::~Metrics() = default;

void Metrics::answered(Map map, Result result, Clock::duration latency) {
  m_requests[static_cast<std::size_t>(map)][static_cast<std::size_t>(result)]->Increment();
  m_latency->Observe(s_seconds(latency));
}

void Metrics::cacheHit() {
  m_cacheHits->Increment();
}

void Metrics::staleAnswer() {
  m_staleAnswers->Increment();
}

void Metrics::databaseError() {
  m_databaseErrors->Increment();
}

void Metrics::databaseConnected(bool isEncrypted, bool isVerified) {
  m_databaseEncrypted->Set(isEncrypted ? 1 : 0);
  m_databaseVerified->Set(isVerified ? 1 : 0);
}

void Metrics::rebuilt(Clock::duration took) {
  m_rebuilds->Observe(s_seconds(took));
}

void Metrics::rebuildFailed() {
  m_rebuildFailures->Increment();
}

void Metrics::connectionOpened() {
  m_connections->Increment();
  m_accepted->Increment();
}

void Metrics::connectionClosed() {
  m_connections->Decrement();
}

void Metrics::malformedRequest() {
  m_malformed->Increment();
}

void Metrics::timedOut() {
  m_timeouts->Increment();
}

void Metrics::madeRoom() {
  m_madeRoom->Increment();
}

void Metrics::tableState(const std::string& sqlName, std::size_t rows, std::size_t leftOut,
                         Clock::duration age) {
  const prometheus::Labels labels{{"table", sqlName}};
  m_families->with([&](Families& families) {
    families.rows.Add(labels).Set(static_cast<double>(rows));
    families.leftOut.Add(labels).Set(static_cast<double>(leftOut));
    families.age.Add(labels).Set(s_seconds(age));
  });
}

void Metrics::forgetTable(const std::string& sqlName) {
  const prometheus::Labels labels{{"table", sqlName}};
  m_families->with([&](Families& families) {
    for (auto* family : {&families.rows, &families.leftOut, &families.age}) {
      if (family->Has(labels)) family->Remove(&family->Add(labels));
    }
  });
}

void Metrics::databaseHost(const std::string& host) {
  m_families->with([&host](Families& families) {
    if (families.presentHost != nullptr) families.host.Remove(families.presentHost);
    families.presentHost = host.empty() ? nullptr : &families.host.Add({{"host", host}});
    if (families.presentHost != nullptr) families.presentHost->Set(1);
  });
}

void Metrics::linesLost(std::uint64_t lines) {
  m_linesLost->Set(static_cast<double>(lines));
}

void Metrics::memoryState(const char* use, std::size_t bytes) {
  m_families->with([&](Families& families) {
    families.memory.Add({{"use", use}}).Set(static_cast<double>(bytes));
  });
}

std::string Metrics::text() const {
  return prometheus::TextSerializer().Serialize(m_registry->Collect());
}

}  // namespace Tessel::Serve
