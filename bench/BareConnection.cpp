// The bare Connector/C calls that the library's work is measured against.
#include "BareConnection.h"

#include <sys/socket.h>

#include <cstdlib>
#include <stdexcept>

#include <mysql.h>

#include "BenchDatabase.h"

namespace Tessel::Bench {

// Says no goodbye, which a server that hangs would hold up.
void BareConnection::Close::operator()(st_mysql* connection) const {
  shutdown(static_cast<int>(mysql_get_socket(connection)), SHUT_RDWR);
  mysql_close(connection);
}

BareConnection::BareConnection(const std::string& database) : m_connection(mysql_init(nullptr)) {
  // The environment does not change while the benchmarks run.
  mysql_options(m_connection.get(), MYSQL_READ_DEFAULT_FILE,
                std::getenv("TSL_DATABASE_OPTION_FILE"));  // NOLINT(concurrency-mt-unsafe): above
  mysql_options(m_connection.get(), MYSQL_SET_CHARSET_NAME, "utf8mb4");
  // Waiting with a time-out costs a microsecond a statement: the comparison is with a loop that can
  // give up as the library can.
  const unsigned int seconds = 30;
  mysql_options(m_connection.get(), MYSQL_OPT_READ_TIMEOUT, &seconds);
  mysql_options(m_connection.get(), MYSQL_OPT_WRITE_TIMEOUT, &seconds);
  if (mysql_real_connect(m_connection.get(), nullptr, nullptr, nullptr, database.c_str(), 0,
                         nullptr, 0) == nullptr) {
    throw std::runtime_error(mysql_error(m_connection.get()));
  }
}

void BareConnection::execute(const std::string& statement) {
  if (mysql_real_query(m_connection.get(), statement.data(), statement.size()) != 0) {
    throw std::runtime_error(mysql_error(m_connection.get()));
  }
}

std::size_t BareConnection::selectAndWalk(const std::string& statement) {
  execute(statement);
  const std::unique_ptr<MYSQL_RES, decltype(&mysql_free_result)> result(
      mysql_store_result(m_connection.get()), &mysql_free_result);
  if (!result) throw std::runtime_error(mysql_error(m_connection.get()));
  const unsigned int fields = mysql_num_fields(result.get());
  std::size_t bytes = 0;
  while (MYSQL_ROW row = mysql_fetch_row(result.get())) {
    const unsigned long* const lengths = mysql_fetch_lengths(result.get());
    for (unsigned int field = 0; field < fields; ++field) {
      for (unsigned long i = 0; i < lengths[field]; ++i) bytes += row[field][i] != 0 ? 1 : 0;
    }
  }
  return bytes;
}

std::string BareConnection::escaped(const std::string& text) {
  std::string escaped(2 * text.size() + 1, '\0');
  escaped.resize(mysql_real_escape_string(m_connection.get(), escaped.data(), text.data(),
                                          static_cast<unsigned long>(text.size())));
  return escaped;
}

void compareStatement(benchmark::State& state, const Comparison& comparison,
                      const std::function<void()>& lookup, const BareLookup& statement) {
  BareConnection connection("ts_address_map");
  const OneCore pinned;
  const auto bare = [&](std::size_t) {
    benchmark::DoNotOptimize(connection.selectAndWalk("select * from " + statement.table +
                                                      " where " + statement.column + "='" +
                                                      connection.escaped(statement.key) + "';"));
  };
  compare(state, comparison, timed(Clock::Everyone, [&](std::size_t) { lookup(); }),
          timed(Clock::Everyone, bare));
}

}  // namespace Tessel::Bench
