// What the test server received, from its general query log.
#ifndef TSL_TESTS_SUPPORT_GENERALLOG_H
#define TSL_TESTS_SUPPORT_GENERALLOG_H

#include <cstddef>
#include <string>
#include <vector>

#include "support/TestServer.h"

namespace Tessel::Testing {

// Reads the log of one server. The server writes a statement to it before it carries it out, so the
// statements that were answered are there. One thread.
class GeneralLog {
 public:
  // One line of the log, with those that continue it.
  struct Entry {
    unsigned long connection;
    std::string command;  // "Query", "Connect", "Init DB", "Quit", "Reset connection" and so on.
    std::string text;
  };

  // `server` must outlive it.
  explicit GeneralLog(TestServer& server);

  // From here on counts what the server receives.
  void mark();
  // The statements since the mark, without the session set-up that each connection begins with and
  // without those of TestServer::sql(). They are as received but for their end: the server cuts
  // blanks and semicolons there before it logs (SocketRelay::statements() shows them).
  [[nodiscard]] std::vector<std::string> statementsSince() const;
  // Everything since the mark.
  [[nodiscard]] std::vector<Entry> entriesSince() const;

  // True for what the database library sends of its own: the set-up of a session, and the like.
  static bool isOfTheSession(const std::string& statement);
  // The entries in the text of a log.
  static std::vector<Entry> parse(const std::string& text);

 private:
  TestServer& m_server;
  std::size_t m_start = 0;
};

}  // namespace Tessel::Testing

#endif
