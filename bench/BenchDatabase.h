// The database and the configuration that the benchmarks run on.
#ifndef TSL_BENCH_BENCHDATABASE_H
#define TSL_BENCH_BENCHDATABASE_H

#include <string>
#include <vector>

namespace Tessel::Bench {

// Sizes, set from the command line before the first benchmark runs.
struct Sizes {
  int rows = 100000;   // Rows of the large table.
  int users = 100000;  // Mailboxes of the large domain.
};
Sizes& sizes();

// As many times the rows of the large table as the largest tables have.
constexpr int s_huge = 10;

// The number of the `i`-th of `count` things that are asked for, in an order in which neighbours
// are far apart, so that it does not matter how they lie in memory.
constexpr std::size_t scattered(std::size_t i, std::size_t count) {
  return i * 7919 % count;
}

// Limit of every lookup that sends one statement.
constexpr double s_mostOfStatement = 1.10;

// Starts the private server and creates the database `ts_address_map`, once.
void startDatabase();

// Fills the alias table `table` with `rows` aliases "alias<i>@bench.example" of five members each,
// once for each table.
void fillAliasTable(const std::string& table, int rows);

// The i-th alias of a filled table.
std::string aliasName(int i);
// Its members.
std::vector<std::string> aliasMembers(int i);

// Fills the mask table `table` with `rows` pairs of `maskPrivate` and `maskPublic`, once for each
// table.
void fillMaskTable(const std::string& table, int rows);

// The i-th pair of a filled table.
std::string maskPrivate(int i);
std::string maskPublic(int i);

// Makes the mask table `table` with `rows` wildcard rows from `privateDomain` to `publicDomain`.
void fillWildcardTable(const std::string& table, int rows);

// The domains of the i-th wildcard row.
std::string privateDomain(int i);
std::string publicDomain(int i);

// Fills the domain "users.example" of the configuration with `users` mailboxes, once.
void fillUsers(int users);

// While it lives, this thread and every thread of the server run on one core: a wake-up across
// cores costs more than a whole query.
class OneCore {
 public:
  OneCore();
  ~OneCore();
  OneCore(const OneCore&) = delete;
  OneCore& operator=(const OneCore&) = delete;
};

}  // namespace Tessel::Bench

#endif
