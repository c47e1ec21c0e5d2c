// Images follow the tables of a real server: every change is seen, and what cannot be read leaves
// the last image in its place.
#include "serve/image/TableWatch.h"

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AddressMapDb.h"
#include "database/Error.h"
#include "local/ServerProcess.h"
#include "support/ErrorOutput.h"
#include "support/ScratchFile.h"
#include "support/SocketRelay.h"
#include "support/TestServer.h"
#include "tests/serve/ServeSupport.h"

namespace Tessel::Serve {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using Testing::TestServer;

namespace fs = std::filesystem;

constexpr char s_missing[] = "the table is missing in the database";
constexpr char s_empty[] = "the table has lost all its rows";

// Waits for `condition`, twenty seconds at most; what it was at the end.
bool s_waitFor(const std::function<bool()>& condition) {
  const Clock::time_point limit = Clock::now() + seconds(20);
  while (!condition()) {
    if (Clock::now() > limit) return false;
    std::this_thread::sleep_for(milliseconds(2));
  }
  return true;
}

// True when somebody waits for the end of "lock tables".
bool s_isWaitedFor() {
  return !TestServer::shared()
              .sql(
                  "select id from information_schema.processlist"
                  " where state = 'Waiting for table metadata lock'")
              .empty();
}

class TableWatchTest : public testing::Test {
 protected:
  void SetUp() override {
    sql("drop database if exists ts_address_map");
    AddressMapDb::initialize(AddressMapDb::MySQL, false);
    sql("use ts_address_map");
    m_settings.refresh = milliseconds(100);
  }
  // The log has no addresses at this level; errors show statements with their variables.
  void TearDown() override {
    m_watch.reset();
    const std::regex variables("@@hostname, @@port, @@datadir");
    EXPECT_THAT(std::regex_replace(takeLog(), variables, ""), Not(HasSubstr("@")));
  }

  static TestServer::Rows sql(const std::string& statement) {
    return TestServer::shared().sql(statement);
  }
  static void add(const std::string& name, const std::string& members,
                  const std::string& table = "alias") {
    sql("insert into ts_address_map." + table + " ( name, members ) values( '" + name + "','" +
        members + "' )");
  }

  static void dropAlias() {
    sql("create table ts_address_map.kept like ts_address_map.alias");
    sql("drop table ts_address_map.alias");
  }
  static void createAlias() { sql("create table ts_address_map.alias like ts_address_map.kept"); }

  void watch() {
    m_watch.reset();
    m_watch = std::make_unique<TableWatch>(m_settings, m_tables, m_metrics, m_log);
    m_watch->start();
  }

  // What `name` expands to in the image of `table`; "none" when there is no alias or no image.
  std::string find(const std::string& name, const std::string& table = "alias") {
    const TablePointer found = m_tables.find(table);
    const ImagePointer image = found == nullptr ? nullptr : found->image();
    if (image == nullptr) return "none";
    const Expansion expansion = image->alias().expand(name);
    return expansion.addresses.empty() ? "none" : expansion.addresses.begin()->address();
  }
  bool becomes(const std::string& name, const std::string& member,
               const std::string& table = "alias") {
    return s_waitFor([&] { return find(name, table) == member; });
  }
  // The number of the metric `name`.
  int count(const std::string& name) {
    const std::string text = metricsText(m_metrics, m_tables, Clock::now());
    const std::size_t at = text.find("\ntsl_address_map_" + name + " ");
    return at == std::string::npos ? -1 : std::stoi(text.substr(text.find(' ', at + 1)));
  }
  Clock::duration age(const std::string& table = "alias") {
    return m_tables.find(table)->age(Clock::now()).value_or(std::chrono::hours(1000));
  }

  std::string whyUnable(const std::string& table) {
    return std::string(m_tables.find(table)->whyUnable(Clock::now(), m_settings));
  }
  bool becomesUnable(const std::string& table, const std::string& why) {
    return s_waitFor([&] {
      const TablePointer found = m_tables.find(table);
      return found != nullptr && found->whyUnable(Clock::now(), m_settings) == why;
    });
  }

  // When the table was last looked at and found to be as its image has it.
  Clock::time_point lookedAt() {
    const Clock::time_point now = Clock::now();
    return now - m_tables.find("mask")->age(now).value_or(std::chrono::hours(1000));
  }

  std::string takeLog() {
    m_log.flush();
    return m_error.take();
  }
  // Waits until the log has `text`.
  void expectLogged(const std::string& text) {
    std::string log;
    EXPECT_TRUE(s_waitFor([&] { return (log += takeLog()).find(text) != std::string::npos; }))
        << log;
  }

  Testing::ErrorOutput m_error;
  Settings m_settings;
  Tables m_tables{m_settings};
  Metrics m_metrics;
  Log m_log{LogLevel::Info};
  std::unique_ptr<TableWatch> m_watch;
};

TEST_F(TableWatchTest, RowsAreReadAndEveryChangeIsSeenAlsoInTheSecondOfAnother) {
  add("a@d", "m0@d");
  watch();
  ASSERT_TRUE(becomes("a@d", "m0@d"));
  for (int i = 1; i < 4; ++i) {
    const std::string member = "m" + std::to_string(i) + "@d";
    sql("update ts_address_map.alias set members = '" + member + "'");
    EXPECT_TRUE(becomes("a@d", member)) << i;
  }
  add("b@d", "m@d");
  sql("delete from ts_address_map.alias where name = 'a@d'");
  EXPECT_TRUE(becomes("a@d", "none"));
  EXPECT_TRUE(s_waitFor([this] { return age() < milliseconds(500); }));
}

TEST_F(TableWatchTest, ATableThatDoesNotChangeIsLookedAtAndNotReadAgain) {
  watch();
  ASSERT_TRUE(s_waitFor([this] { return count("rebuild_seconds_count") == 2; }));
  for (int looks = 0; looks < 20; ++looks) {
    const Clock::time_point before = lookedAt();
    EXPECT_TRUE(s_waitFor([&] { return lookedAt() > before; }));
  }
  EXPECT_EQ(count("rebuild_seconds_count"), 2);
}

TEST_F(TableWatchTest, TablesComeAndGoAndComeBack) {
  watch();
  EXPECT_TRUE(s_waitFor([this] { return m_tables.find("mask") != nullptr; }));
  sql("create table ts_address_map.alias_new like ts_address_map.alias");
  add("a@d", "b@d", "alias_new");
  ASSERT_TRUE(becomes("a@d", "b@d", "alias_new"));
  sql("drop table ts_address_map.alias_new");
  ASSERT_TRUE(becomesUnable("alias_new", s_missing));
  sql("create table ts_address_map.other ( name int )");
  add("seen@d", "b@d");
  ASSERT_TRUE(becomes("seen@d", "b@d"));
  EXPECT_EQ(m_tables.find("other"), nullptr);
  sql("create table ts_address_map.alias_new like ts_address_map.alias");
  add("a@d", "c@d", "alias_new");
  EXPECT_TRUE(becomes("a@d", "c@d", "alias_new"));
  expectLogged(
      "table alias_new is missing in the database: its requests are answered TEMP "
      "until it is back; if it is gone for good, reload the service");
}

TEST_F(TableWatchTest, ABaseTableThatIsGoneForGoodIsStillExpected) {
  const Testing::ScratchFile scratch;
  fs::create_directory(scratch.directory() + "/alias.image");
  m_settings.snapshot = scratch.directory();
  add("a@d", "b@d");
  watch();
  ASSERT_TRUE(becomesUnable("alias", ""));
  dropAlias();
  ASSERT_TRUE(becomesUnable("alias", s_missing));
  m_watch->reload();
  EXPECT_TRUE(becomesUnable("alias", "there is no such table"));
  createAlias();
  EXPECT_TRUE(becomesUnable("alias", "")) << "another table, which may be empty";
  EXPECT_EQ(find("a@d"), "none");
  const std::string log = takeLog();
  EXPECT_THAT(log, HasSubstr("the snapshot of table alias cannot be used: " + scratch.directory() +
                             "/alias.image is not a regular file"));
  EXPECT_THAT(log, HasSubstr("table alias: its snapshot cannot be removed: " + scratch.directory() +
                             "/alias.image: Is a directory"));
}

TEST_F(TableWatchTest, ADroppedDatabaseIsAnAnswerAlsoForANewConnection) {
  add("a@d", "b@d");
  watch();
  ASSERT_TRUE(becomesUnable("alias", ""));
  sql("drop database ts_address_map");
  EXPECT_TRUE(becomesUnable("alias", s_missing));
  m_watch.reset();
  publishRows(*m_tables.find("alias"), {{"a@d", "b@d"}});
  m_tables.find("alias")->setState(TableState::Good);
  watch();
  EXPECT_TRUE(becomesUnable("alias", s_missing));
  EXPECT_THAT(takeLog(), Not(HasSubstr("the database is unavailable")));
}

TEST_F(TableWatchTest, AReloadConfirmsThatADatabaseIsGoneForGood) {
  add("a@d", "b@d");
  watch();
  ASSERT_TRUE(becomesUnable("alias", ""));
  sql("drop database ts_address_map");
  ASSERT_TRUE(becomesUnable("alias", s_missing));
  m_watch->reload();
  EXPECT_TRUE(becomesUnable("alias", "there is no such table"));
  EXPECT_THAT(takeLog(), Not(HasSubstr("there is no new one")));
}

TEST_F(TableWatchTest, ATableThatLosesAllRowsIsNotAnsweredUntilAReloadConfirmsIt) {
  add("a@d", "b@d");
  watch();
  ASSERT_TRUE(becomes("a@d", "b@d"));
  sql("truncate table ts_address_map.alias");
  EXPECT_TRUE(becomesUnable("alias", s_empty));
  EXPECT_EQ(find("a@d"), "b@d") << "the last rows are kept";
  m_watch->reload();
  EXPECT_TRUE(becomesUnable("alias", ""));
  EXPECT_EQ(find("a@d"), "none");
  expectLogged(
      "table alias has 0 rows instead of 1: its requests are answered TEMP until "
      "it has rows again; if it is to be empty, reload the service");
  // What was confirmed is that it was empty then.
  add("a@d", "c@d");
  ASSERT_TRUE(becomes("a@d", "c@d"));
  sql("truncate table ts_address_map.alias");
  EXPECT_TRUE(becomesUnable("alias", s_empty));
}

TEST_F(TableWatchTest, AReloadConfirmsOnlyWhatWasReportedBefore) {
  add("a@d", "b@d");
  watch();
  ASSERT_TRUE(becomes("a@d", "b@d"));
  sql("lock tables ts_address_map.alias write");
  m_watch->reload();
  EXPECT_TRUE(s_waitFor(s_isWaitedFor));
  sql("delete from ts_address_map.alias");
  sql("unlock tables");
  EXPECT_TRUE(becomesUnable("alias", s_empty));
}

TEST_F(TableWatchTest, WhoeverConfirmsThatATableIsEmptyDoesNotConfirmThatItIsGone) {
  add("a@d", "b@d");
  watch();
  ASSERT_TRUE(becomes("a@d", "b@d"));
  sql("truncate table ts_address_map.alias");
  ASSERT_TRUE(becomesUnable("alias", s_empty));
  // The confirmation waits for a reading that works.
  sql("alter table ts_address_map.alias rename column members to moved");
  ASSERT_TRUE(s_waitFor([this] { return count("rebuild_failures_total") > 0; }));
  m_watch->reload();
  dropAlias();
  ASSERT_TRUE(becomesUnable("alias", s_missing));
  for (int look = 0; look < 3; ++look) {
    EXPECT_TRUE(s_waitFor([this, before = lookedAt()] { return lookedAt() > before; }));
  }
  EXPECT_EQ(whyUnable("alias"), s_missing);
}

TEST_F(TableWatchTest, ASnapshotTellsThatATableHadRows) {
  const Testing::ScratchFile scratch;
  m_settings.snapshot = scratch.directory();
  SnapshotDirectory(scratch.directory())
      .save("alias", TableImage(TableKind::Alias, sourceOf({{"a@d", "b@d"}})));
  SnapshotDirectory(scratch.directory())
      .save("alias_x", TableImage(TableKind::Alias, sourceOf({{"a@d", "b@d"}})));
  watch();
  EXPECT_TRUE(becomesUnable("alias", s_empty));
  EXPECT_TRUE(becomesUnable("alias_x", s_missing));
}

TEST_F(TableWatchTest, ATableThatIsExchangedForAnotherIsRead) {
  add("a@d", "b@d");
  watch();
  ASSERT_TRUE(becomes("a@d", "b@d"));
  sql("create table ts_address_map.fresh like ts_address_map.alias");
  add("a@d", "c@d", "fresh");
  sql("rename table ts_address_map.alias to ts_address_map.old,"
      " ts_address_map.fresh to ts_address_map.alias");
  EXPECT_TRUE(becomes("a@d", "c@d"));
}

TEST_F(TableWatchTest, ATableThatCannotBeReadKeepsItsLastImageUntilItCan) {
  add("a@d", "b@d");
  watch();
  ASSERT_TRUE(becomes("a@d", "b@d"));
  sql("alter table ts_address_map.alias rename column members to moved");
  EXPECT_TRUE(s_waitFor([this] { return count("rebuild_failures_total") > 0; }));
  EXPECT_EQ(find("a@d"), "b@d");
  sql("update ts_address_map.alias set moved = 'c@d'");
  sql("alter table ts_address_map.alias rename column moved to members");
  EXPECT_TRUE(becomes("a@d", "c@d"));
  m_watch.reset();
  const std::string log = takeLog();
  EXPECT_THAT(log, HasSubstr("table alias cannot be read"));
  EXPECT_THAT(log, HasSubstr("table alias can be read again"));
}

TEST_F(TableWatchTest, EachConnectionIsReportedOnceWithHowItIsEncrypted) {
  add("a@d", "b@d");
  watch();
  ASSERT_TRUE(becomes("a@d", "b@d"));
  for (const auto& row : sql("select id from information_schema.processlist where id <> "
                             "connection_id()")) {
    try {
      sql("kill " + row.at(0));
    } catch (const Database::Error&) {
      // It was gone.
    }
  }
  sql("update ts_address_map.alias set members = 'c@d'");
  ASSERT_TRUE(becomes("a@d", "c@d"));
  m_watch.reset();
  const std::string log = takeLog();
  const std::string line =
      "info: connected to the database at " + TestServer::shared().socketPath() + ", connection ";
  const std::size_t first = log.find(line);
  ASSERT_NE(first, std::string::npos) << log;
  const std::size_t second = log.find(line, first + 1);
  ASSERT_NE(second, std::string::npos) << log;
  EXPECT_EQ(log.find(line, second + 1), std::string::npos) << log;
  EXPECT_THAT(log, ContainsRegex("connection [0-9]+, not encrypted\n"));
  EXPECT_EQ(count("database_encrypted"), 0);
}

TEST_F(TableWatchTest, ATableThatCouldNeverBeReadIsReportedUntilItIs) {
  sql("alter table ts_address_map.alias rename column members to moved");
  watch();
  EXPECT_TRUE(s_waitFor([this] { return count("rebuild_failures_total") > 0; }));
  sql("alter table ts_address_map.alias rename column moved to members");
  EXPECT_TRUE(becomesUnable("alias", ""));
  m_watch.reset();
  const std::string log = takeLog();
  EXPECT_THAT(log, HasSubstr("table alias cannot be read: Unknown column 'members'"));
  EXPECT_THAT(log, HasSubstr("table alias can be read again"));
  EXPECT_THAT(log, ContainsRegex("info: table alias: 0 rows read in [0-9]+ ms\n"));
  EXPECT_THAT(log, Not(HasSubstr("mask can")));
}

TEST_F(TableWatchTest, RowsThatCannotBeReadAreToldByTheirNumberOnly) {
  add("secret@d", "no address");
  add("a@d", "b@d");
  watch();
  ASSERT_TRUE(becomes("a@d", "b@d"));
  const std::string log = takeLog();
  EXPECT_THAT(log, HasSubstr("table alias: 1 rows cannot be read and are left out; "
                             "'tsl-address-map check' names them"));
  EXPECT_THAT(log, Not(HasSubstr("secret")));
  Tables tables(m_settings);
  Log detailed(LogLevel::Debug);
  TableWatch watch(m_settings, tables, m_metrics, detailed);
  watch.start();
  EXPECT_TRUE(s_waitFor([&] {
    const TablePointer table = tables.find("alias");
    return table != nullptr && table->image() != nullptr;
  }));
  EXPECT_TRUE(watch.stop(seconds(20)));
  detailed.flush();
  EXPECT_THAT(takeLog(), HasSubstr("debug: left out: secret@d: "));
}

TEST_F(TableWatchTest, WhileTheServerIsAwayTheLastImageStaysAndWhatChangesThenIsSeen) {
  add("a@d", "b@d");
  watch();
  ASSERT_TRUE(becomes("a@d", "b@d"));
  ASSERT_TRUE(becomesUnable("mask", ""));
  TestServer::shared().stop();
  EXPECT_TRUE(s_waitFor([this] { return count("database_errors_total") > 2; }));
  EXPECT_EQ(find("a@d"), "b@d");
  EXPECT_TRUE(s_waitFor([this] { return age() > milliseconds(300); }));
  TestServer::shared().restart();
  sql("update ts_address_map.alias set members = 'c@d'");
  EXPECT_TRUE(becomes("a@d", "c@d"));
  EXPECT_TRUE(s_waitFor([this] { return age() < milliseconds(500); }));
  const std::string log = takeLog();
  EXPECT_THAT(log,
              ContainsRegex("the database is unavailable: .+; table alias answers with rows of "
                            "[0-9] s ago; table mask answers with rows of [0-9] s ago"));
  EXPECT_THAT(log, HasSubstr("the database is available again"));
}

// Two servers with other rows: x@d is a@d on the one, and b@d on the other.
class TableWatchOnTwoServers : public TableWatchTest {
 protected:
  static void SetUpTestSuite() {
    if (s_other) return;
    const std::string before = TestServer::shared().optionFile();
    s_other = std::make_unique<TestServer>(
        std::vector<std::string>{"--log-bin=changes", "--server-id=7"});
    // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread
    setenv("TSL_DATABASE_OPTION_FILE", before.c_str(), 1);
  }

  void SetUp() override {
    TableWatchTest::SetUp();
    for (const char* statement :
         {"create or replace database ts_address_map",
          "create table ts_address_map.alias (name varchar(255) primary key, members text)",
          "create table ts_address_map.mask (private varchar(255), public varchar(255))",
          "insert into ts_address_map.alias values('x@d', 'b@d')"}) {
      s_other->sql(statement);
    }
    add("x@d", "a@d");
  }

  void use(const std::string& hosts) {
    m_options.emplace(TestServer::shared(),
                      "[client]\nhost=" + hosts + "\nuser=" + callerName() + "\n");
  }

  static std::unique_ptr<TestServer> s_other;

  const std::string m_path = TestServer::shared().socketPath();
  const std::string m_otherPath = s_other->socketPath();
  std::optional<TestServer::OptionFile> m_options;
};

std::unique_ptr<TestServer> TableWatchOnTwoServers::s_other;

TEST_F(TableWatchOnTwoServers, TheRowsAreThoseOfTheHostThatIsUsedAlsoWhenItChanges) {
  Testing::SocketRelay first({m_path});
  Testing::SocketRelay second({m_otherPath});
  use(first.path() + "," + second.path());
  watch();
  EXPECT_TRUE(becomes("x@d", "a@d"));
  first.cutAfter(Testing::SocketRelay::Direction::ToClient, 0, true);
  EXPECT_TRUE(becomes("x@d", "b@d"));
  // New connections go back to the first host; the one that finds the changes follows them.
  first.endCut();
  std::this_thread::sleep_for(seconds(1));
  s_other->sql("update ts_address_map.alias set members = 'c@d'");
  EXPECT_TRUE(becomes("x@d", "a@d"));
  sql("update ts_address_map.alias set members = 'e@d'");
  EXPECT_TRUE(becomes("x@d", "e@d"));
  EXPECT_THAT(takeLog(), Not(HasSubstr("different servers")));
}

// Nodes of a cluster have other times for the creation of one table.
TEST_F(TableWatchOnTwoServers, FewerRowsOnAnotherHostAreNoSignOfAnotherTable) {
  Testing::SocketRelay first({m_path});
  Testing::SocketRelay second({m_otherPath});
  use(first.path() + "," + second.path());
  add("y@d", "a@d");
  watch();
  EXPECT_TRUE(becomes("y@d", "a@d"));
  std::this_thread::sleep_for(seconds(1));
  s_other->sql("alter table ts_address_map.alias force");
  // The host is left while the table is being changed.
  s_other->sql("update ts_address_map.alias set members = 'c@d'");
  first.goDown();
  EXPECT_TRUE(becomes("x@d", "c@d"));
  EXPECT_EQ(find("y@d"), "none");
  EXPECT_THAT(takeLog(), Not(HasSubstr("instead of")));
}

// Such as a node that was suspended.
TEST_F(TableWatchOnTwoServers, AHostThatFallsSilentIsSoonLeftForTheOther) {
  Testing::SocketRelay first({m_path});
  Testing::SocketRelay second({m_otherPath});
  use(first.path() + "," + second.path());
  watch();
  EXPECT_TRUE(becomes("x@d", "a@d"));
  first.hold(true);
  const Clock::time_point start = Clock::now();
  EXPECT_TRUE(becomes("x@d", "b@d"));
  EXPECT_LT(Clock::now() - start, seconds(10));
  EXPECT_THAT(takeLog(), Not(HasSubstr("unavailable")));
}

TEST_F(TableWatchOnTwoServers, BehindAProxyTheRowsAndTheChangesAreThoseOfOneServer) {
  Testing::SocketRelay proxy({m_path, m_otherPath, m_otherPath});
  use(proxy.path());
  watch();
  EXPECT_TRUE(s_waitFor([this] { return find("x@d") != "none"; }));
  ASSERT_TRUE(becomesUnable("mask", ""));
  for (int i = 0; i < 20; ++i) {
    const std::string member = std::to_string(i) + "@d";
    for (TestServer* server : {&TestServer::shared(), s_other.get()}) {
      server->sql("update ts_address_map.alias set members = '" + member + "'");
    }
    EXPECT_TRUE(becomes("x@d", member));
  }
  expectLogged(
      "connections to the database lead to different servers: tables are read one after "
      "the other, over one connection");
}

// The server that is watched replicates the other one.
class TableWatchOnReplica : public TableWatchOnTwoServers {
 protected:
  void SetUp() override {
    TableWatchOnTwoServers::SetUp();
    s_other->sql("create or replace user replica@localhost identified by 'secret'");
    s_other->sql("grant replication slave on *.* to replica@localhost");
    const TestServer::Rows place = s_other->sql("show master status");
    const std::string& path = m_primary.path();
    sql("change master to master_host = '127.0.0.1', master_port = " +
        path.substr(path.find(':') + 1) +
        ", master_user = 'replica', master_password = 'secret', master_use_gtid = no,"
        " master_log_file = '" +
        place.at(0).at(0) + "', master_log_pos = " + place.at(0).at(1) + ", master_delay = 600");
    sql("start slave");
    EXPECT_TRUE(s_waitFor([] { return sql("show slave status").at(0).at(10) == "Yes"; }));
    m_settings.maxLag = std::chrono::minutes(2);
  }
  void TearDown() override {
    m_watch.reset();
    sql("stop slave");
    sql("reset slave all");
    TableWatchOnTwoServers::TearDown();
  }

  // Has the replica be so far behind.
  static void changeOnPrimary(int lag) {
    s_other->sql("set timestamp = unix_timestamp() - " + std::to_string(lag));
    s_other->sql("insert into ts_address_map.alias values('y@d', 'z@d')");
    s_other->sql("set timestamp = default");
  }

  Testing::SocketRelay m_primary{{m_otherPath}};
};

TEST_F(TableWatchOnReplica, ItsLagIsAgeOfTheRows) {
  watch();
  EXPECT_TRUE(becomes("x@d", "a@d"));
  EXPECT_LT(age(), seconds(30));
  changeOnPrimary(60);
  EXPECT_TRUE(s_waitFor([this] { return age() > seconds(59); }));
  EXPECT_LT(age(), seconds(90));
  EXPECT_EQ(count("database_errors_total"), 0);
}

TEST_F(TableWatchOnReplica, OneThatIsFarBehindOrStoppedIsNotRead) {
  watch();
  EXPECT_TRUE(becomes("x@d", "a@d"));
  sql("stop slave");
  expectLogged("does not replicate, and must for --max-lag 2m");
  sql("start slave");
  expectLogged("the database is available again");
  changeOnPrimary(200);
  expectLogged("s behind, more than --max-lag 2m");
  sql("update ts_address_map.alias set members = 'c@d'");
  EXPECT_EQ(find("x@d"), "a@d");
  sql("stop slave");
  sql("reset slave all");
  EXPECT_TRUE(becomes("x@d", "c@d"));
}

TEST_F(TableWatchOnReplica, OneThatIsFarBehindIsLeftForAnotherHost) {
  Testing::SocketRelay replica({m_path});
  use(replica.path() + "," + m_primary.path());
  changeOnPrimary(200);
  watch();
  EXPECT_TRUE(becomes("y@d", "z@d"));
  EXPECT_EQ(m_watch->host(), m_primary.path());
}

// The service read the newer rows of the primary, or of a snapshot, before.
TEST_F(TableWatchOnReplica, ItsRowsAreNotUsedWhileTheyMayBeOlderThanThoseInMemory) {
  const Testing::ScratchFile scratch;
  Testing::SocketRelay primary({m_otherPath});
  Testing::SocketRelay replica({m_path});
  use(primary.path() + "," + replica.path());
  changeOnPrimary(60);
  const Clock::time_point start = Clock::now();
  const auto lookAt = [&](int second) { m_watch->testOnlyLook(start + seconds(second)); };
  const auto begin = [&] {
    m_watch = std::make_unique<TableWatch>(m_settings, m_tables, m_metrics, m_log);
  };
  begin();
  lookAt(0);
  EXPECT_EQ(find("y@d"), "z@d");
  EXPECT_TRUE(s_waitFor([] { return sql("show slave status").at(0).at(32) != "0"; }));
  // It says whole seconds, which may be nearly one more.
  primary.goDown();
  for (const int second : {1, 10, 60}) {
    lookAt(second);
    EXPECT_EQ(find("y@d"), "z@d");
    EXPECT_EQ(find("x@d"), "b@d");
  }
  EXPECT_EQ(m_watch->host(), replica.path());
  EXPECT_GT(m_tables.find("alias")->age(start + seconds(60)), seconds(59));
  const std::string log = takeLog();
  const std::regex message("the replica " + replica.path() +
                           ", \\d+ s behind, may be older than the rows in memory, which answer "
                           "until it is not\n");
  EXPECT_EQ(std::distance(std::sregex_iterator(log.begin(), log.end(), message), {}), 1) << log;
  lookAt(90);
  EXPECT_EQ(find("y@d"), "none");
  EXPECT_EQ(find("x@d"), "a@d");
  EXPECT_GT(m_tables.find("alias")->age(start + seconds(90)), seconds(59));
  // A snapshot is of a server that nobody knows.
  m_settings.snapshot = scratch.directory();
  SnapshotDirectory(scratch.directory())
      .save("alias", TableImage(TableKind::Alias, sourceOf({{"s@d", "t@d"}})), start);
  use(replica.path());
  begin();
  lookAt(10);
  EXPECT_EQ(find("s@d"), "t@d");
  // A server that was promoted is never behind.
  sql("stop slave");
  sql("reset slave all");
  lookAt(11);
  EXPECT_EQ(find("x@d"), "a@d");
}

TEST_F(TableWatchTest, AReloadReadsAllTablesAnew) {
  watch();
  ASSERT_TRUE(s_waitFor([this] { return m_watch->isSettled(); }));
  const auto alias = m_tables.find("alias")->generation();
  const auto mask = m_tables.find("mask")->generation();
  EXPECT_GT(alias, 0U);
  EXPECT_GT(mask, 0U);
  m_watch->reload();
  EXPECT_TRUE(s_waitFor([&] {
    return m_tables.find("alias")->generation() > alias &&
           m_tables.find("mask")->generation() > mask;
  }));
}

TEST_F(TableWatchTest, AReloadWithSettingsThatDoNotWorkKeepsTheConnection) {
  add("a@d", "b@d");
  watch();
  ASSERT_TRUE(becomes("a@d", "b@d"));
  ASSERT_TRUE(becomesUnable("mask", ""));
  const std::string good = "[client]\nsocket=" + TestServer::shared().socketPath() + "\n";
  const TestServer::OptionFile file(TestServer::shared(), "nonsense\n");
  m_watch->reload();
  expectLogged(
      "error: the service goes on with the connection to the database that it has: there is no"
      " new one: The database option file");
  file.write(good + "user=nobody-of-this-name\n");
  m_watch->reload();
  expectLogged("there is no new one: Access denied for user");
  const Clock::time_point before = lookedAt();
  EXPECT_TRUE(s_waitFor([&] { return lookedAt() > before + milliseconds(100); }));
  EXPECT_EQ(whyUnable("alias"), "");
  add("c@d", "d@d");
  EXPECT_TRUE(becomes("c@d", "d@d"));
  EXPECT_EQ(count("database_errors_total"), 0);
  file.write(good + "user=" + callerName() + "\n");
  m_watch->reload();
  add("e@d", "f@d");
  EXPECT_TRUE(becomes("e@d", "f@d"));
}

TEST_F(TableWatchTest, ASnapshotAnswersWhileTheServerIsAway) {
  const Testing::ScratchFile scratch;
  m_settings.snapshot = scratch.directory();
  const SnapshotDirectory directory(scratch.directory());
  add("a@d", "b@d");
  add("broken@d", "no address");
  watch();
  ASSERT_TRUE(s_waitFor([&] { return directory.names().size() == 2; }));
  m_watch.reset();
  {
    const TestServer::OptionFile nowhere(TestServer::shared(),
                                         "[client]\nsocket=/nonexistent/socket\n");
    Tables tables(m_settings);
    tables.add("mask_x");
    TableWatch later(m_settings, tables, m_metrics, m_log);
    const ImagePointer image = tables.find("alias")->image();
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->alias().expand("a@d").addresses.size(), 1U);
    EXPECT_EQ(image->alias().expand("broken@d").kind, Expansion::Kind::Broken);
    EXPECT_LT(*tables.find("alias")->age(Clock::now()), std::chrono::minutes(1));
    const int errors = count("database_errors_total");
    later.start();
    EXPECT_TRUE(s_waitFor([&] { return count("database_errors_total") > errors; }));
    EXPECT_EQ(tables.find("alias")->image(), image);
  }
  // What changed since is read over it.
  sql("update ts_address_map.alias set members = 'c@d' where name = 'a@d'");
  watch();
  EXPECT_TRUE(becomes("a@d", "c@d"));
  const std::string log = takeLog();
  EXPECT_THAT(log, ContainsRegex("info: table alias: 1 rows of the snapshot of [0-9] s ago\n"));
  EXPECT_THAT(log, HasSubstr("; table mask_x cannot answer"));
}

TEST_F(TableWatchTest, ASnapshotThatIsDeletedOrReplacedIsWrittenAgain) {
  const Testing::ScratchFile scratch;
  const std::string file = scratch.directory() + "/alias.image";
  m_settings.snapshot = scratch.directory();
  m_settings.snapshotInterval = milliseconds(20);
  const SnapshotDirectory directory(scratch.directory());
  directory.save("alias", TableImage(TableKind::Alias, sourceOf({})));
  fs::copy_file(file, scratch.directory() + "/backup");
  add("a@d", "b@d");
  const auto isSaved = [&] {
    return fs::exists(file) && directory.load("alias", TableKind::Alias).image->rows().size() == 1;
  };
  watch();
  ASSERT_TRUE(s_waitFor(isSaved));
  // From then on only its time is written.
  const std::string same = scratch.directory() + "/same";
  EXPECT_TRUE(s_waitFor([&] {
    fs::remove(same);
    fs::create_hard_link(file, same);
    const auto before = fs::last_write_time(file);
    std::this_thread::sleep_for(milliseconds(300));
    return fs::equivalent(file, same) && fs::last_write_time(file) > before;
  }));
  fs::remove(file);
  EXPECT_TRUE(s_waitFor(isSaved));
  fs::rename(scratch.directory() + "/backup", file);
  EXPECT_TRUE(s_waitFor(isSaved));
  fs::permissions(scratch.directory(), fs::perms::all);
  expectLogged("table alias: no snapshot was written: " + scratch.directory() +
               " can be written by other users");
}

TEST_F(TableWatchTest, ATableThatTakesMoreMemoryThanExpectedIsReported) {
  m_settings.maxMemory = 1000;
  add("a@d", "b@d");
  watch();
  EXPECT_TRUE(becomes("a@d", "b@d"));
  EXPECT_THAT(metricsText(m_metrics, m_tables, Clock::now()),
              ContainsRegex("memory_bytes.use=.images.. [1-9]"));
  expectLogged(
      "table alias takes 0 MB of memory, more than --max-memory gives "
      "to answers and pages");
}

TEST_F(TableWatchTest, ASnapshotThatIsDamagedIsNotUsed) {
  const Testing::ScratchFile scratch;
  m_settings.snapshot = scratch.directory();
  SnapshotDirectory(scratch.directory())
      .save("alias", TableImage(TableKind::Alias, sourceOf({{"a@d", "b@d"}})));
  fs::resize_file(scratch.directory() + "/alias.image", 20);
  const TableWatch watch(m_settings, m_tables, m_metrics, m_log);
  EXPECT_EQ(m_tables.find("alias")->image(), nullptr);
  EXPECT_FALSE(m_tables.find("alias")->age(Clock::now()));
  expectLogged("the snapshot of table alias cannot be used: the file is cut off");
}

TEST_F(TableWatchTest, ADirectoryThatCannotBeUsedIsReportedAndStopsNothing) {
  const Testing::ScratchFile scratch;
  fs::permissions(scratch.directory(), fs::perms::all);
  for (const std::string& directory : {scratch.directory(), std::string("/nonexistent")}) {
    m_settings.snapshot = directory;
    watch();
    EXPECT_TRUE(becomesUnable("alias", ""));
  }
  m_watch.reset();
  const std::string log = takeLog();
  EXPECT_THAT(log, HasSubstr(scratch.directory() + " can be written by other users"));
  EXPECT_THAT(log, HasSubstr("there are no snapshots: /nonexistent"));
}

TEST_F(TableWatchTest, AnEndDoesNotWaitLongerForTheDatabaseThanItIsTold) {
  add("a@d", "b@d");
  sql("lock tables ts_address_map.alias write");
  watch();
  EXPECT_TRUE(s_waitFor(s_isWaitedFor));
  EXPECT_FALSE(m_watch->stop(milliseconds(10)));
  sql("unlock tables");
  EXPECT_TRUE(m_watch->stop(seconds(20)));
}

}  // namespace
}  // namespace Tessel::Serve
