// The body of Connection: reopening, sending and sending again. Private to this directory.
#ifndef TSL_DATABASE_CONNECTIONIMPL_H
#define TSL_DATABASE_CONNECTIONIMPL_H

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/SocketAddress.h"
#include "database/Connection.h"
#include "database/Handle.h"

namespace Tessel::Database {

class RowParser;

// One thread at a time.
class Connection::Impl {
 public:
  // Over the open connection `handle`, or, where that is null, not connected yet.
  explicit Impl(Target target, std::unique_ptr<Handle> handle = nullptr);
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // Connected to `server`, the default way where that is the default server. Throws.
  static std::unique_ptr<Impl> at(const SocketAddress& server);

  // Connects if that is still to be done, and selects `database`; none when it is empty. Throws.
  void begin(const std::string& database);
  // Sends `text`, hands its result to `parser` (may be null) together with `owner`, and takes in
  // all further results. Sends it again after a lost connection only where that cannot change the
  // outcome. Throws Error; what the parser throws passes through.
  void execute(std::string_view text, RowParser* parser, Connection* owner, bool mayRepeat,
               const char* context);
  // Selects the database `name`. Returns nothing, or the error when there is none of that name.
  // Throws on any other failure.
  std::optional<Error> select(const std::string& name, const char* context);
  // Forgets the selected database when it is `name`, which was dropped.
  void forget(const std::string& name);
  // The open connection, opened again where needed, for `statement`. Throws.
  Handle& ready(const char* context, std::string_view statement);

  [[nodiscard]] bool inTransaction() const noexcept;
  // A Transaction object begins or ends. While it lasts, a transaction that is gone on the server's
  // side makes every statement fail instead of being carried out on its own.
  void setGuarded(bool guarded) noexcept { m_guarded = guarded; }
  [[nodiscard]] bool isGuarded() const noexcept { return m_guarded; }
  void setPatience(Handle::Clock::duration patience) noexcept { m_patience = patience; }
  // Closes the connection and counts its host as failed.
  void leaveHost() noexcept;
  // Closes the connection; the server undoes an open transaction.
  void drop() noexcept { m_handle.reset(); }

 private:
  // What came of sending a statement once.
  struct Answer;

  // `until`: when to stop waiting; without it, after the time-outs of the options.
  Answer attempt(std::string_view text, const char* context,
                 const std::optional<Handle::Clock::time_point>& until = std::nullopt);
  MYSQL_RES* run(std::string_view text, bool mayRepeat, const char* context);
  MYSQL_RES* runAgain(std::string_view text, Handle::Clock::time_point start, const Answer& first,
                      const char* context);
  void takeInResults(std::string_view text, const char* context);
  bool isAlive();
  bool mustReopen(const char* context, std::string_view statement);
  void reopen(const std::string& database);
  std::optional<Error> reopenSelecting(const std::string& name);
  bool isToLeave(unsigned int number);
  bool awaitCluster(const Answer& answer);
  // Throws the error that the server answered with.
  [[noreturn]] void refuse(const char* context, std::string_view statement);

  Target m_target;
  std::string m_database;            // Selected, or to be selected when it is opened again.
  std::unique_ptr<Handle> m_handle;  // Null before begin() and after a loss.
  bool m_guarded = false;
  std::optional<Handle::Clock::duration> m_patience;  // For the first host that is to read.
  bool m_isProven = false;                            // The handle has carried out a statement.
  Handle::Clock::duration m_connecting{};             // Time spent on it for the present statement.
  std::chrono::steady_clock::time_point m_lastAlive;  // When the handle was last found alive.
};

}  // namespace Tessel::Database

#endif
