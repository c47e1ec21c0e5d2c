// How the tool fails: exit statuses, the message for people, and the mapping from the exceptions of
// the library. "Not found" is an answer, and a failure never becomes one.
#ifndef TSL_TOOLS_FAILURE_FAILURE_H
#define TSL_TOOLS_FAILURE_FAILURE_H

#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>

#include "base/Exception.h"

namespace Tessel::Tool {

// What the tool exits with, after sysexits.h.
enum class ExitCode : int {
  Done = 0,
  NotFound = 1,
  Usage = 64,
  BadData = 65,
  OutputFailed = 74,
  Unavailable = 75,
  Configuration = 78,
};

// A failure with its exit status: `subject` says what failed, `why` the reason, `hint` what to do
// next (may be empty). What it quotes may hold any bytes: show it with `printable`.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode code, std::string subject, std::string why, std::string hint);

  [[nodiscard]] ExitCode code() const noexcept { return m_code; }
  [[nodiscard]] const std::string& subject() const noexcept { return m_subject; }
  [[nodiscard]] const std::string& why() const noexcept { return m_why; }
  [[nodiscard]] const std::string& hint() const noexcept { return m_hint; }

 private:
  ExitCode m_code;
  std::string m_subject;
  std::string m_why;
  std::string m_hint;
};

// `text` fit for a terminal: control characters and bytes that are not UTF-8 are shown as \xNN.
std::string printable(std::string_view text);

// True when the chain of `exception` has a text in it that is no e-mail address.
bool isAddressFault(const Exception& exception);

// Numbers of errors of the database server that callers ask for.
inline constexpr unsigned int s_unknownDatabase = 1049;
inline constexpr unsigned int s_duplicateEntry = 1062;
inline constexpr unsigned int s_commandDenied = 1142;
inline constexpr unsigned int s_noSuchTable = 1146;

// True when the chain of `exception` has error `number` of the database server or its client in it.
bool isDatabaseError(const Exception& exception, unsigned int number);

// True when the chain of `exception` has a statement in it that may have been carried out or not.
bool isOutcomeUnknown(const Exception& exception);

// The innermost detail of the chain of `exception`: the reason without its context.
std::string reasonOf(const Exception& exception);

// The failure that `exception`, thrown while doing `subject`, is: by its type and the chain of its
// causes. What is not known counts as `Unavailable`.
Failure failureOf(const std::exception& exception, const std::string& subject);

}  // namespace Tessel::Tool

#endif
