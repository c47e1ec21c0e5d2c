// The numbers of the service as Prometheus reads them.
#include "serve/base/Metrics.h"

#include <chrono>
#include <cstddef>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
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

// Each line without the prefix of all names; `# NAME HELP` is the help.
constexpr const char* s_expected = R"(# requests_total Requests answered, by map and result
requests_total{map="alias",result="notfound"} 0
requests_total{map="alias",result="ok"} 2
requests_total{map="alias",result="perm"} 0
requests_total{map="alias",result="temp"} 0
requests_total{map="domain",result="notfound"} 0
requests_total{map="domain",result="ok"} 0
requests_total{map="domain",result="perm"} 0
requests_total{map="domain",result="temp"} 0
requests_total{map="mailbox",result="notfound"} 0
requests_total{map="mailbox",result="ok"} 0
requests_total{map="mailbox",result="perm"} 0
requests_total{map="mailbox",result="temp"} 0
requests_total{map="mask_private",result="notfound"} 0
requests_total{map="mask_private",result="ok"} 0
requests_total{map="mask_private",result="perm"} 0
requests_total{map="mask_private",result="temp"} 0
requests_total{map="mask_public",result="notfound"} 0
requests_total{map="mask_public",result="ok"} 0
requests_total{map="mask_public",result="perm"} 0
requests_total{map="mask_public",result="temp"} 0
requests_total{map="none",result="notfound"} 0
requests_total{map="none",result="ok"} 0
requests_total{map="none",result="perm"} 1
requests_total{map="none",result="temp"} 0
requests_total{map="policy",result="ok"} 0
requests_total{map="policy",result="refused"} 0
requests_total{map="policy",result="temp"} 0
requests_total{map="sender_login",result="notfound"} 0
requests_total{map="sender_login",result="ok"} 0
requests_total{map="sender_login",result="perm"} 0
requests_total{map="sender_login",result="temp"} 0
# cache_hits_total Requests answered from the cache of answers
cache_hits_total 1
# stale_answers_total Requests answered while the table could not be compared
stale_answers_total 1
# database_errors_total Attempts to ask the database that failed
database_errors_total 1
# rebuild_failures_total Tables that could not be read
rebuild_failures_total 1
# connections_total Connections accepted
connections_total 2
# malformed_requests_total Connections ended because what they sent was no request
malformed_requests_total 1
# timeouts_total Connections ended because nothing came or went in time
timeouts_total 1
# connections_dropped_total Connections ended because there was no room for a new one
connections_dropped_total 1
# database_encrypted 1 while the connection to the database is encrypted, or else 0
database_encrypted 1
# database_verified 1 while the certificate of the database server is checked, or else 0
database_verified 1
# connections Connections of mail servers
connections 1
# log_lines_lost Lines of the log that were lost because they could not be written
log_lines_lost 4
# build_info The version, as a label
build_info{version="VERSION"} 1
# rows Rows that requests are answered from
rows{table="configuration"} 5
rows{table="alias"} 1
# rows_left_out Rows that cannot be read
rows_left_out{table="configuration"} 0
rows_left_out{table="alias"} 1
# data_age_seconds Time since the data was last known to be that of the table
data_age_seconds{table="configuration"} 5
data_age_seconds{table="alias"} 7
# memory_bytes Memory of images, and of the answers and pages that are kept
memory_bytes{use="pages"} 0
memory_bytes{use="answers"} 0
memory_bytes{use="images"} BYTES
# database_host The host whose database is read, as a label
database_host{host="db1:3306"} 1
# request_seconds Time from a whole request to its answer
request_seconds_count 3
request_seconds_sum 0.504
request_seconds_bucket{le="1e-06"} 0
request_seconds_bucket{le="2e-06"} 0
request_seconds_bucket{le="5e-06"} 0
request_seconds_bucket{le="1e-05"} 0
request_seconds_bucket{le="2e-05"} 0
request_seconds_bucket{le="5e-05"} 0
request_seconds_bucket{le="0.0001"} 0
request_seconds_bucket{le="0.001"} 0
request_seconds_bucket{le="0.01"} 2
request_seconds_bucket{le="0.1"} 2
request_seconds_bucket{le="1"} 3
request_seconds_bucket{le="+Inf"} 3
# rebuild_seconds Time that reading a whole table took
rebuild_seconds_count 1
rebuild_seconds_sum 0.2
rebuild_seconds_bucket{le="0.01"} 0
rebuild_seconds_bucket{le="0.1"} 0
rebuild_seconds_bucket{le="0.5"} 1
rebuild_seconds_bucket{le="1"} 1
rebuild_seconds_bucket{le="5"} 1
rebuild_seconds_bucket{le="30"} 1
rebuild_seconds_bucket{le="+Inf"} 1
)";

// The lines of `text` without their order, which is that of a hash.
std::multiset<std::string> s_lines(const std::string& text) {
  std::istringstream stream(text);
  std::multiset<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.insert(line);
  return lines;
}

// `text` as `s_expected` has it. `bytes` are those of the images.
std::string s_short(std::string text, std::size_t bytes) {
  const std::pair<std::string, std::string> changes[] = {
      {"# TYPE .*\n", ""},
      {"tsl_address_map_", ""},
      {"# HELP ", "# "},
      {"\"" TSL_VERSION "\"", "\"VERSION\""},
      {"\"images\"} " + std::to_string(bytes), "\"images\"} BYTES"}};
  for (const auto& [from, to] : changes) text = std::regex_replace(text, std::regex(from), to);
  return text;
}

// All of them, with each help, label and border of a histogram: who watches a service names them.
TEST(Metrics, AreWritten) {
  const Settings settings;
  Tables tables(settings);
  Metrics metrics;
  const Clock::time_point now = Clock::now();
  publishRows(*tables.add("alias"), {{"a@d", "b@d"}, {"broken@d", "no address"}}, now - seconds(7));
  tables.configuration().publish(ServedDomains().image(), now - seconds(5));
  metrics.answered(Map::Alias, Result::Ok, milliseconds(2));
  metrics.answered(Map::Alias, Result::Ok, milliseconds(2));
  metrics.answered(Map::None, Result::Perm, milliseconds(500));
  metrics.cacheHit();
  metrics.staleAnswer();
  metrics.databaseError();
  metrics.databaseConnected(true, true);
  metrics.databaseHost("db1:3306");
  metrics.rebuilt(milliseconds(200));
  metrics.rebuildFailed();
  metrics.connectionOpened();
  metrics.connectionOpened();
  metrics.connectionClosed();
  metrics.malformedRequest();
  metrics.timedOut();
  metrics.madeRoom();
  metrics.linesLost(4);
  const std::string text =
      s_short(metricsText(metrics, tables, now), tables.find("alias")->image()->bytes());
  EXPECT_EQ(s_lines(text), s_lines(s_expected)) << text;
  metrics.databaseConnected(false, false);
  const std::string plain = metricsText(metrics, tables, now);
  EXPECT_THAT(plain, HasSubstr("\ntsl_address_map_database_encrypted 0\n"));
  EXPECT_THAT(plain, HasSubstr("\ntsl_address_map_database_verified 0\n"));
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
  // Between the end of a reading and its note of the time.
  tables.add("alias_new")
      ->publish(std::make_shared<const TableImage>(TableKind::Alias, sourceOf({})));
  const std::string text = metricsText(metrics, tables, now);
  EXPECT_THAT(text, HasSubstr("tsl_address_map_rows{table=\"alias\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("tsl_address_map_rows_left_out{table=\"alias\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("tsl_address_map_data_age_seconds{table=\"alias\"} 7\n"));
  EXPECT_THAT(text, Not(HasSubstr("table=\"mask\"")));
  EXPECT_THAT(text, Not(HasSubstr("table=\"alias_new\"")));
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
