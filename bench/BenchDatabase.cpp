// The database and the configuration that the benchmarks run on.
#include "BenchDatabase.h"

#include <sched.h>
#include <unistd.h>

#include <filesystem>
#include <mutex>
#include <set>

#include "AddressMapDb.h"
#include "Rounds.h"
#include "cmf/Writer.h"
#include "database/Connection.h"
#include "map/AddressMapMySQL.h"
#include "support/TestServer.h"

namespace Tessel::Bench {

namespace {

// Rows of one insert statement.
constexpr int s_rowsPerStatement = 1000;

std::string s_members(int i) {
  std::string members;
  for (const std::string& member : aliasMembers(i))
    members += (members.empty() ? "" : ",") + member;
  return members;
}

// Inserts `rows` rows into what `into` names; `values` writes the values of the i-th one.
template <class Values>
void s_insert(const std::string& into, int rows, Values values) {
  for (int first = 0; first < rows; first += s_rowsPerStatement) {
    std::string statement = "insert into ts_address_map." + into + " values ";
    for (int i = first; i < std::min(rows, first + s_rowsPerStatement); ++i) {
      statement += (i == first ? "( " : ",( ") + values(i) + " )";
    }
    Testing::TestServer::shared().sql(statement);
  }
}

void s_pinTask(pid_t task, bool toOneCore) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  const long count = toOneCore ? 1 : sysconf(_SC_NPROCESSORS_ONLN);
  for (long core = 0; core < count; ++core) CPU_SET(static_cast<std::size_t>(core), &cores);
  sched_setaffinity(task, sizeof(cores), &cores);
}

void s_pin(bool toOneCore) {
  s_pinTask(0, toOneCore);
  const std::string tasks =
      "/proc/" + std::to_string(Testing::TestServer::shared().pid()) + "/task";
  for (const auto& task : std::filesystem::directory_iterator(tasks)) {
    s_pinTask(static_cast<pid_t>(std::stol(task.path().filename().string())), toOneCore);
  }
}

}  // namespace

Sizes& sizes() {
  static Sizes s_sizes;
  return s_sizes;
}

void startDatabase() {
  static const bool s_started = [] {
    // The general log that the tests read would cost more than what is measured.
    Testing::TestServer::shared().sql("set global general_log = off");
    // As large as the private server's own, so that every table stays in it.
    Testing::TestServer::shared().sql("set global innodb_buffer_pool_size = 1073741824");
    AddressMapDb::initialize(AddressMapDb::MySQL, true);
    watch(Testing::TestServer::shared().pid());
    return true;
  }();
  static_cast<void>(s_started);
}

void fillAliasTable(const std::string& table, int rows) {
  // Of several threads of a benchmark the first fills the table, and the others wait for it.
  static std::mutex s_mutex;
  const std::lock_guard lock(s_mutex);
  static std::set<std::string> s_filled;
  startDatabase();
  if (!s_filled.insert(table).second) return;
  {
    Database::Connection connection("ts_address_map");
    createAliasTable(connection, table);
  }
  s_insert(table + " ( name, members )", rows,
           [](int i) { return "'" + aliasName(i) + "','" + s_members(i) + "'"; });
}

void fillMaskTable(const std::string& table, int rows) {
  // Of several threads of a benchmark the first fills the table, and the others wait for it.
  static std::mutex s_mutex;
  const std::lock_guard lock(s_mutex);
  static std::set<std::string> s_filled;
  startDatabase();
  if (!s_filled.insert(table).second) return;
  {
    Database::Connection connection("ts_address_map");
    createMaskTable(connection, table);
  }
  s_insert(table, rows, [](int i) { return "'" + maskPrivate(i) + "','" + maskPublic(i) + "'"; });
}

void fillWildcardTable(const std::string& table, int rows) {
  fillMaskTable(table, 0);
  s_insert(table, rows,
           [](int i) { return "'*@" + privateDomain(i) + "','*@" + publicDomain(i) + "'"; });
}

std::string aliasName(int i) {
  return "alias" + std::to_string(i) + "@bench.example";
}

std::vector<std::string> aliasMembers(int i) {
  std::vector<std::string> members;
  for (const char* name : {"anna", "berta", "carl", "dora", "emil"}) {
    members.push_back(name + std::to_string(i) + "@bench.example");
  }
  return members;
}

std::string maskPrivate(int i) {
  return "private" + std::to_string(i) + "@bench.example";
}

std::string maskPublic(int i) {
  return "public" + std::to_string(i) + "@bench.example";
}

std::string privateDomain(int i) {
  return "inner" + std::to_string(i) + ".example";
}

std::string publicDomain(int i) {
  return "outer" + std::to_string(i) + ".example";
}

void fillUsers(int users) {
  static const bool s_filled = [users] {
    startDatabase();
    CMF::Writer writer;
    writer.addDomain("users.example");
    for (int i = 0; i < users; ++i) {
      writer.addUser("users.example", "mailbox" + std::to_string(i), CMF::MailUserMailbox);
    }
    writer.commit();
    return true;
  }();
  static_cast<void>(s_filled);
}

OneCore::OneCore() {
  s_pin(true);
}

OneCore::~OneCore() {
  s_pin(false);
}

}  // namespace Tessel::Bench
