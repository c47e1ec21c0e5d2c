// The bare Connector/C calls that the library's work is measured against.
#ifndef TSL_BENCH_BARECONNECTION_H
#define TSL_BENCH_BARECONNECTION_H

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

#include "Rounds.h"

struct st_mysql;

namespace Tessel::Bench {

// One connection to the database of the benchmarks. One thread at a time. Throws
// std::runtime_error with the server's message when a call fails.
class BareConnection {
 public:
  // Connects through the option file that TSL_DATABASE_OPTION_FILE names.
  explicit BareConnection(const std::string& database);

  // Sends `statement`, stores its result, walks every byte of it, and frees it. Returns the sum of
  // the field lengths.
  std::size_t selectAndWalk(const std::string& statement);

  // `text` made safe for a literal.
  std::string escaped(const std::string& text);

  void execute(const std::string& statement);

 private:
  struct Close {
    void operator()(st_mysql* connection) const;
  };
  std::unique_ptr<st_mysql, Close> m_connection;
};

// A lookup by a key: the statement that a comparison is with.
struct BareLookup {
  std::string table;
  std::string column;
  std::string key;
};

// Compares `lookup`, which sends one statement, with that statement alone: escaping, sending,
// storing, walking and freeing. Client and server run on one core.
void compareStatement(benchmark::State& state, const Comparison& comparison,
                      const std::function<void()>& lookup, const BareLookup& statement);

}  // namespace Tessel::Bench

#endif
