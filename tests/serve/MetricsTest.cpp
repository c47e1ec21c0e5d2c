// The numbers of the service as Prometheus reads them.
#include "serve/base/Metrics.h"

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;
using testing::Not;

TEST(Metrics, AreAllThereFromTheStart) {
  const Settings settings;
  const Tables tables(settings);
  Metrics metrics;
  const std::string text = metricsText(metrics, tables, Clock::now());
  for (const char* map : {"alias", "mask_public", "mask_private", "mailbox", "domain", "none"}) {
    for (const char* result : {"ok", "notfound", "temp", "perm"}) {
      EXPECT_THAT(text, HasSubstr("tsl_address_map_requests_total{map=\"" + std::string(map) +
                                  "\",result=\"" + result + "\"} 0\n"));
    }
  }
  for (const char* name :
       {"request_seconds_count", "cache_hits_total", "stale_answers_total", "database_errors_total",
        "rebuild_failures_total", "rebuild_seconds_count", "connections", "connections_total",
        "malformed_requests_total", "timeouts_total"}) {
    EXPECT_THAT(text, HasSubstr("\ntsl_address_map_" + std::string(name) + " 0\n"));
  }
  EXPECT_THAT(text, HasSubstr("tsl_address_map_build_info{version=\"" TSL_VERSION "\"} 1\n"));
}

TEST(Metrics, CountWhatHappens) {
  const Settings settings;
  const Tables tables(settings);
  Metrics metrics;
  metrics.answered(Map::Alias, Result::Ok, milliseconds(2));
  metrics.answered(Map::Alias, Result::Ok, milliseconds(2));
  metrics.answered(Map::None, Result::Perm, milliseconds(2));
  metrics.cacheHit();
  metrics.staleAnswer();
  metrics.databaseError();
  metrics.rebuilt(milliseconds(200));
  metrics.rebuildFailed();
  metrics.connectionOpened();
  metrics.connectionOpened();
  metrics.connectionClosed();
  metrics.malformedRequest();
  metrics.timedOut();
  const std::string text = metricsText(metrics, tables, Clock::now());
  for (const char* line :
       {"requests_total{map=\"alias\",result=\"ok\"} 2",
        "requests_total{map=\"none\",result=\"perm\"} 1", "request_seconds_count 3",
        "request_seconds_bucket{le=\"0.001\"} 0", "request_seconds_bucket{le=\"0.01\"} 3",
        "cache_hits_total 1", "stale_answers_total 1", "database_errors_total 1",
        "rebuild_failures_total 1", "rebuild_seconds_count 1", "connections 1",
        "connections_total 2", "malformed_requests_total 1", "timeouts_total 1"}) {
    EXPECT_THAT(text, HasSubstr("\ntsl_address_map_" + std::string(line) + "\n"));
  }
}

TEST(Metrics, TellTheStateOfEachTableWithoutAnyAddress) {
  const Settings settings;
  Tables tables(settings);
  Metrics metrics;
  const Clock::time_point now = Clock::now();
  publishRows(*tables.add("alias"),
              {{"secret@d.example", "x@d.example"}, {"broken@d.example", "no address"}},
              now - seconds(7));
  tables.add("mask");
  const std::string text = metricsText(metrics, tables, now);
  EXPECT_THAT(text, HasSubstr("tsl_address_map_rows{table=\"alias\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("tsl_address_map_rows_left_out{table=\"alias\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("tsl_address_map_data_age_seconds{table=\"alias\"} 7\n"));
  EXPECT_THAT(text, Not(HasSubstr("table=\"mask\"")));
  EXPECT_THAT(text, Not(HasSubstr("example")));
  publishRows(*tables.find("alias"), {}, now);
  EXPECT_THAT(metricsText(metrics, tables, now),
              HasSubstr("tsl_address_map_rows{table=\"alias\"} 0\n"));
}

TEST(Metrics, AreCountedAndReadByManyThreads) {
  const Settings settings;
  Tables tables(settings);
  publishRows(*tables.add("alias"), {});
  Metrics metrics;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 100; ++n) {
        metrics.answered(Map::Alias, Result::NotFound, milliseconds(1));
        if (n % 20 == 0) static_cast<void>(metricsText(metrics, tables, Clock::now()));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(metricsText(metrics, tables, Clock::now()),
              HasSubstr("requests_total{map=\"alias\",result=\"notfound\"} 400\n"));
}

}  // namespace
}  // namespace Tessel::Serve
