// Log messages with a numeric code, to syslog(3) or to standard error.
#ifndef TSL_BASE_LOGGER_H
#define TSL_BASE_LOGGER_H

#include <list>
#include <string>
#include <vector>

#include "base/Export.h"
#include "base/Guarded.h"

namespace Tessel {

// The process's log. Messages go to syslog(3), facility mail, priority warning; with TSL_LOG=stderr
// in the environment they go to standard error, one line each. Any thread may log.
class TSL_EXPORT Logger {
 public:
  // One message as it was logged.
  struct Message {
    unsigned int code;
    int number;
    std::string text;
  };

  // Collects the messages of all threads from its construction to its destruction instead of
  // sending them anywhere. Captures nest: the newest one collects. For tests.
  class TSL_EXPORT Capture {
   public:
    Capture();
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    // The messages collected so far, which are forgotten here.
    std::vector<Message> take();

   private:
    std::list<std::vector<Message>>::iterator m_messages;  // In the logger's state.
  };

  // The logger of this process. With `reopen` true the environment is read again first; a program
  // passes true after it changed TSL_LOG, everyone else false.
  static Logger& instance(bool reopen);

  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // Logs one message. `code` identifies the kind of message, `number` qualifies it (0 where there
  // is nothing to say), `format` and what follows are as for printf(3). Control characters
  // become "?" and the text is cut after 1000 bytes. Never throws.
  void operator()(unsigned int code, int number, const char* format, ...) noexcept
      __attribute__((format(printf, 4, 5)));

 private:
  Logger();
  ~Logger() = default;
  void readEnvironment();

  struct State {
    bool toStandardError = false;
    std::list<std::vector<Message>> captures;  // What each collected; the newest is the last.
  };

  Guarded<State> m_state;
};

}  // namespace Tessel

#endif
