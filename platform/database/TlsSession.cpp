// TlsSession: looks at a connection after the client library has opened it.
#include "database/TlsSession.h"

#include <errmsg.h>
#include <sys/random.h>

#include <array>
#include <memory>
#include <new>
#include <string>

#include "base/sourceLine.h"
#include "database/Error.h"
#include "database/StatementObserver.h"
#include "database/Wait.h"

namespace Tessel::Database {

namespace {

constexpr char s_context[] = "Database::Connection";
constexpr char s_file[] = "TlsSession";

using ResultOwner = std::unique_ptr<MYSQL_RES, decltype(&mysql_free_result)>;

[[noreturn]] void s_fail(MYSQL* mysql, const std::string& why, int line = sourceLine()) {
  throw Error(s_context, s_file, line,
              {CR_SSL_CONNECTION_ERROR,
               "HY000",
               why + "; server: " + mysql_get_host_info(mysql),
               {},
               false});
}

}  // namespace

void checkTls(MYSQL* mysql, const TlsDemand& demand, std::chrono::steady_clock::time_point until) {
  if (!demand.isAsked) return;
  if (mysql_get_ssl_cipher(mysql) == nullptr) s_fail(mysql, "The connection is not encrypted");
  std::array<unsigned char, 8> secret{};
  if (getrandom(secret.data(), secret.size(), 0) != static_cast<ssize_t>(secret.size())) {
    s_fail(mysql, "There are no random numbers");
  }
  std::string want;
  for (const unsigned char byte : secret) {
    want += "0123456789abcdef"[byte >> 4U];
    want += "0123456789abcdef"[byte & 15U];
  }
  const std::string statement = "select '" + want + "'";
  tellStatement(statement);
  // Bytes that somebody put behind the server's greeting, before the encryption began, count as its
  // first answers. Nobody can put this one there.
  const int failed = callUntil<int>(
      mysql, until,
      [&](int* result) {
        return mysql_real_query_start(result, mysql, statement.data(), statement.size());
      },
      [mysql](int* result, int events) { return mysql_real_query_cont(result, mysql, events); });
  if (failed == 0) {
    const ResultOwner result(
        callUntil<MYSQL_RES*>(
            mysql, until,
            [mysql](MYSQL_RES** stored) { return mysql_store_result_start(stored, mysql); },
            [mysql](MYSQL_RES** stored, int events) {
              return mysql_store_result_cont(stored, mysql, events);
            }),
        &mysql_free_result);
    const MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
    if (row != nullptr && row[0] != nullptr && row[0] == want) return;
  }
  if (mysql_errno(mysql) == CR_OUT_OF_MEMORY) throw std::bad_alloc();
  s_fail(mysql, std::string("The first answer on the encrypted connection is not the server's") +
                    (mysql_errno(mysql) != 0 ? std::string(": ") + mysql_error(mysql) : ""));
}

}  // namespace Tessel::Database
