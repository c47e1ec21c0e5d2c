// The numbers of the service as Prometheus reads them.
#include "serve/base/Metrics.h"

#include <chrono>
#include <cstddef>
#include <map>
#include <sstream>
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

TEST(Metrics, AreExplained) {
  const Settings settings;
  Tables tables(settings);
  publishRows(*tables.add("alias"), {});
  Metrics metrics;
  std::istringstream text(metricsText(metrics, tables, Clock::now()));
  std::map<std::string, std::string> help;
  const std::string start = "# HELP tsl_address_map_";
  for (std::string line; std::getline(text, line);) {
    if (!line.starts_with(start)) continue;
    const std::size_t blank = line.find(' ', start.size());
    help[line.substr(start.size(), blank - start.size())] = line.substr(blank + 1);
  }
  const std::map<std::string, std::string> expected = {
      {"build_info", "The version, as a label"},
      {"cache_hits_total", "Requests answered from the cache of answers"},
      {"connections", "Connections of mail servers"},
      {"connections_dropped_total", "Connections ended because there was no room for a new one"},
      {"connections_total", "Connections accepted"},
      {"data_age_seconds", "Time since the data was last known to be that of the table"},
      {"database_encrypted", "1 while the connection to the database is encrypted, or else 0"},
      {"database_errors_total", "Attempts to ask the database that failed"},
      {"database_verified", "1 while the certificate of the database server is checked, or else 0"},
      {"log_lines_lost", "Lines of the log that were lost because they could not be written"},
      {"malformed_requests_total", "Connections ended because what they sent was no request"},
      {"memory_bytes", "Memory of images, and of the answers and pages that are kept"},
      {"rebuild_failures_total", "Tables that could not be read"},
      {"rebuild_seconds", "Time that reading a whole table took"},
      {"request_seconds", "Time from a whole request to its answer"},
      {"requests_total", "Requests answered, by map and result"},
      {"rows", "Rows that requests are answered from"},
      {"rows_left_out", "Rows that cannot be read"},
      {"stale_answers_total", "Requests answered while the table could not be compared"},
      {"timeouts_total", "Connections ended because nothing came or went in time"},
  };
  EXPECT_EQ(help, expected);
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
  metrics.madeRoom();
  metrics.linesLost(4);
  const std::string text = metricsText(metrics, tables, Clock::now());
  for (const char* line : {"requests_total{map=\"alias\",result=\"ok\"} 2",
                           "requests_total{map=\"none\",result=\"perm\"} 1",
                           "request_seconds_count 3",
                           "request_seconds_bucket{le=\"0.001\"} 0",
                           "request_seconds_bucket{le=\"0.01\"} 3",
                           "cache_hits_total 1",
                           "stale_answers_total 1",
                           "database_errors_total 1",
                           "rebuild_failures_total 1",
                           "rebuild_seconds_count 1",
                           "connections 1",
                           "connections_total 2",
                           "malformed_requests_total 1",
                           "timeouts_total 1",
                           "connections_dropped_total 1",
                           "log_lines_lost 4",
                           "request_seconds_bucket{le=\"1e-06\"} 0",
                           "rebuild_seconds_bucket{le=\"0.1\"} 0",
                           "rebuild_seconds_bucket{le=\"0.5\"} 1",
                           "rebuild_seconds_bucket{le=\"30\"} 1"}) {
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

TEST(Metrics, TellTheMemoryOfImagesAnswersAndPages) {
  const Settings settings;
  Tables tables(settings);
  Metrics metrics;
  const auto bytes = [&](const std::string& use) {
    const std::string line = "tsl_address_map_memory_bytes{use=\"" + use + "\"} ";
    const std::string text = metricsText(metrics, tables, Clock::now());
    const std::size_t at = text.find(line);
    return at == std::string::npos
               ? "none"
               : text.substr(at + line.size(), text.find('\n', at) - at - line.size());
  };
  for (const char* use : {"images", "answers", "pages"}) EXPECT_EQ(bytes(use), "0") << use;
  std::size_t images = 0;
  for (const char* name : {"alias", "mask", "alias_x"}) {
    publishRows(*tables.add(name), {{"a@d", "b@d"}});
    images += tables.find(name)->image()->bytes();
  }
  EXPECT_EQ(bytes("images"), std::to_string(images));
  ASSERT_TRUE(tables.answerMemory().take(1000));
  EXPECT_EQ(bytes("answers"), "1000");
  EXPECT_EQ(bytes("pages"), "0");
  tables.answerMemory().give(1000);
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

TEST(Metrics, OneHostIsNamedAtATime) {
  Metrics metrics;
  EXPECT_THAT(metrics.text(), Not(HasSubstr("database_host{")));
  metrics.databaseHost("db1:3306");
  metrics.databaseHost("db2:3306");
  EXPECT_THAT(metrics.text(), HasSubstr("database_host{host=\"db2:3306\"} 1\n"));
  EXPECT_THAT(metrics.text(), Not(HasSubstr("db1")));
  metrics.databaseHost("");
  EXPECT_THAT(metrics.text(), Not(HasSubstr("database_host{")));
}

}  // namespace
}  // namespace Tessel::Serve
