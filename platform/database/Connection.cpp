// Connection: when it is opened again, and when a statement may be sent once more.
#include "database/Connection.h"

#include <errmsg.h>
#include <mysqld_error.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <thread>
#include <utility>

#include "base/sourceLine.h"
#include "database/ConnectionImpl.h"
#include "database/DbResult.h"
#include "database/RowParser.h"
#include "database/SessionSetting.h"
#include "database/Statement.h"
#include "database/StatementObserver.h"
#include "database/Wait.h"

namespace Tessel::Database {

namespace {

using Clock = std::chrono::steady_clock;
using ResultOwner = std::unique_ptr<MYSQL_RES, decltype(&mysql_free_result)>;

// A statement of this size may be refused for it, which the server does by hanging up.
constexpr std::size_t s_largeStatement = 1024UL * 1024UL;
// How long a connection that was found alive is taken for alive.
constexpr std::chrono::milliseconds s_trusted{1};
// Pause before a cluster whose nodes all refuse is asked again.
constexpr std::chrono::milliseconds s_clusterPause{100};
// A wait that ends this much before the time-out still counts as one.
constexpr std::chrono::milliseconds s_timeoutSlack{50};

// Contexts of the operations, and the source that all of their errors name.
constexpr char s_open[] = "Database::Connection";
constexpr char s_select[] = "Database::Connection::dbSelect";
constexpr char s_selectIfExists[] = "Database::Connection::dbSelectIfExists";
constexpr char s_delete[] = "Database::Connection::dbDelete";
constexpr char s_file[] = "Connection";

[[noreturn]] void s_throwLostTransaction(const char* context, Error::Facts facts,
                                         int line = sourceLine()) {
  if (facts.number == 0) facts.number = CR_SERVER_LOST;
  if (facts.sqlState.empty()) facts.sqlState = "HY000";
  facts.message =
      "The transaction is lost: its connection broke or the server ended it, and what it "
      "did is undone" +
      (facts.message.empty() ? "" : ": " + facts.message);
  throw Error(context, s_file, line, facts);
}

Error s_unknownOutcome(const char* context, Error::Facts facts, bool timedOut,
                       const Exception* cause = nullptr, int line = sourceLine()) {
  facts.outcomeUnknown = true;
  facts.message = std::string(timedOut ? "No answer came in time"
                                       : "The connection was lost after the statement was sent") +
                  "; whether it was carried out is unknown: " + facts.message;
  Error error(context, s_file, line, facts);
  if (cause != nullptr) error.cause(*cause);
  return error;
}

Error s_notSent(const char* context, Error::Facts facts, int line = sourceLine()) {
  facts.message = "The statement could not be sent: " + facts.message;
  if (facts.statement.size() >= s_largeStatement) {
    facts.message += "; it has " + std::to_string(facts.statement.size()) +
                     " bytes, the server's max_allowed_packet may be less";
  }
  return {context, s_file, line, facts};
}

using Deadline = std::optional<Clock::time_point>;

// The end of a statement that began at `start` and may take `limit`.
Deadline s_end(Clock::time_point start, std::chrono::seconds limit) {
  return limit.count() == 0 ? Deadline() : Deadline(start + limit);
}

// The calls of the client library for a statement, which wait until a time of ours or for as long
// as the options say.
int s_send(MYSQL* mysql, std::string_view text, const Deadline& until) {
  if (!until) return mysql_send_query(mysql, text.data(), text.size());
  return callUntil<int>(
      mysql, *until,
      [&](int* result) { return mysql_send_query_start(result, mysql, text.data(), text.size()); },
      [&](int* result, int events) { return mysql_send_query_cont(result, mysql, events); });
}

my_bool s_readResult(MYSQL* mysql, const Deadline& until) {
  if (!until) return mysql_read_query_result(mysql);
  return callUntil<my_bool>(
      mysql, *until, [&](my_bool* result) { return mysql_read_query_result_start(result, mysql); },
      [&](my_bool* result, int events) {
        return mysql_read_query_result_cont(result, mysql, events);
      });
}

MYSQL_RES* s_storeResult(MYSQL* mysql, const Deadline& until) {
  return until ? storeUntil(mysql, *until) : mysql_store_result(mysql);
}

// True for the answers of a server that takes no writes.
bool s_isReadOnly(unsigned int number) {
  return number == ER_OPTION_PREVENTS_STATEMENT || number == ER_READ_ONLY_MODE;
}

// Takes in and drops the results that are left, also when an exception passes.
class Drain {
 public:
  explicit Drain(Handle& handle) : m_handle(handle) {}
  ~Drain() {
    MYSQL* const mysql = m_handle.mysql();
    const PipeGuard guard(m_handle.usesTls());
    while (mysql_more_results(mysql) != 0 && mysql_next_result(mysql) == 0) {
      mysql_free_result(mysql_store_result(mysql));
    }
  }
  Drain(const Drain&) = delete;
  Drain& operator=(const Drain&) = delete;

 private:
  Handle& m_handle;
};

}  // namespace

struct Connection::Impl::Answer {
  bool lost = false;
  // Lost because the host does not carry it out; another one may.
  bool isRefused = false;
  // Of a lost connection: how many hosts there are, and the time-out for reading; 0: none.
  std::size_t hosts = 1;
  std::chrono::seconds limit{};
  Clock::duration connectTime{};
  // Of a lost connection: the server may have had the statement.
  bool sent = false;
  bool timedOut = false;
  Error::Facts facts;
  // Otherwise: the stored result, owned by the receiver, or null for a statement without one.
  MYSQL_RES* result = nullptr;
};

Connection::Impl::Impl(Target target, std::unique_ptr<Handle> handle)
    : m_target(std::move(target)), m_handle(std::move(handle)) {}

std::unique_ptr<Connection::Impl> Connection::Impl::at(const SocketAddress& server) {
  Target target{OptionSource::current(), std::nullopt, std::nullopt, {}};
  try {
    Clock::duration spent{};
    std::unique_ptr<Handle> handle = Handle::open(target, {}, spent);
    if (handle->peerAddress() == server) {
      return std::make_unique<Impl>(std::move(target), std::move(handle));
    }
  } catch (const Error&) {
    // The default server does not answer; the one that is asked for may, or will say why not.
  }
  target.address = server;
  return std::make_unique<Impl>(std::move(target));
}

void Connection::Impl::begin(const std::string& database) {
  if (!m_handle) {
    m_handle = Handle::open(m_target, database, m_connecting);
    m_database = database;
    return;
  }
  if (database.empty()) return;
  const std::optional<Error> missing = select(database, s_open);
  if (missing) throw Error(*missing);
}

bool Connection::Impl::inTransaction() const noexcept {
  return m_handle && m_handle->inTransaction();
}

// Asking the socket costs a system call: not for a connection that was fine a moment ago. One that
// broke in that moment is noticed when the statement is sent.
bool Connection::Impl::isAlive() {
  const Clock::time_point now = Clock::now();
  if (now - m_lastAlive < s_trusted) return true;
  m_lastAlive = now;
  return !m_handle->isDead();
}

bool Connection::Impl::mustReopen(const char* context, std::string_view statement) {
  m_connecting = {};
  const bool usable = m_handle && !m_handle->isForeign() && isAlive();
  const bool hadTransaction = m_guarded || inTransaction();
  if (usable && (!m_guarded || inTransaction())) return false;
  if (!usable) m_handle.reset();
  if (hadTransaction) s_throwLostTransaction(context, {0, {}, {}, statement, false});
  return true;
}

Handle& Connection::Impl::ready(const char* context, std::string_view statement) {
  if (mustReopen(context, statement)) reopen(m_database);
  return *m_handle;
}

void Connection::Impl::reopen(const std::string& database) {
  m_target.options = OptionSource::of(m_target.options.file);
  m_isProven = false;
  m_handle = Handle::open(m_target, database, m_connecting);
}

std::optional<Error> Connection::Impl::reopenSelecting(const std::string& name) {
  try {
    reopen(name);
  } catch (const Error& error) {
    if (error.number() == ER_BAD_DB_ERROR) return error;
    throw;
  }
  m_database = name;
  return std::nullopt;
}

std::optional<Error> Connection::Impl::select(const std::string& name, const char* context) {
  if (mustReopen(context, {})) return reopenSelecting(name);
  int failed = 0;
  {
    const PipeGuard guard(m_handle->usesTls());
    failed = mysql_select_db(m_handle->mysql(), name.c_str());
  }
  if (failed == 0) {
    m_database = name;
    return std::nullopt;
  }
  const Error::Facts facts = m_handle->lastError({});
  if (facts.number == ER_BAD_DB_ERROR) return Error(context, s_file, sourceLine(), facts);
  if (!isConnectionLoss(facts.number)) throw Error(context, s_file, sourceLine(), facts);
  const bool hadTransaction = inTransaction();
  m_handle.reset();
  if (hadTransaction) s_throwLostTransaction(context, facts);
  return reopenSelecting(name);
}

void Connection::Impl::leaveHost() noexcept {
  if (m_handle) HostHealth::failed(m_handle->host(), Clock::now());
  drop();
}

void Connection::Impl::forget(const std::string& name) {
  if (m_database == name) m_database.clear();
}

// Whether the host that answered with the error `number` is to be left for another one, which may
// carry the statement out; this one did not.
bool Connection::Impl::isToLeave(unsigned int number) {
  // A node of a cluster that is cut off from the others says this.
  if (number == ER_UNKNOWN_COM_ERROR) return true;
  if (m_handle->hosts() == 1) return false;
  // And this when it cannot wait for them.
  if (number == ER_LOCK_WAIT_TIMEOUT) return waitsForOtherNodes();
  if (!s_isReadOnly(number)) return false;
  m_target.avoided.insert(m_handle->host());
  if (m_target.avoided.size() == m_handle->hosts()) m_target.avoided = {m_handle->host()};
  return true;
}

Connection::Impl::Answer Connection::Impl::attempt(std::string_view text, const char* context,
                                                   const Deadline& until) {
  MYSQL* const mysql = m_handle->mysql();
  const Clock::time_point start = Clock::now();
  Answer answer;
  tellStatement(text);
  {
    const PipeGuard guard(m_handle->usesTls());
    // A server that did not get the whole statement cannot carry it out.
    answer.sent = s_send(mysql, text, until) == 0;
    if (answer.sent && s_readResult(mysql, until) == 0) {
      m_isProven = true;
      // Asked first: a connection that breaks between two rows leaves no columns behind, and must
      // not be taken for a statement without a result.
      const bool hasRows = mysql_field_count(mysql) != 0;
      if (hasRows) answer.result = s_storeResult(mysql, until);
      if (!hasRows || answer.result != nullptr) {
        HostHealth::allWork();
        return answer;
      }
    }
  }
  try {
    answer.facts = m_handle->lastError(text);
  } catch (const std::bad_alloc&) {
    m_handle.reset();  // Rows that found no room are still on their way.
    throw;
  }
  const unsigned int number = answer.facts.number;
  answer.isRefused = isToLeave(number);
  if (!answer.isRefused && !isConnectionLoss(number)) refuse(context, text);
  answer.limit = std::chrono::seconds(mysql->options.read_timeout);
  answer.timedOut =
      until ? Clock::now() >= *until
            : answer.limit.count() != 0 && Clock::now() - start >= answer.limit - s_timeoutSlack;
  // Sent by servers that stop waiting for a statement: ours was not read.
  if (answer.isRefused || number == s_clientInteractionTimeout) answer.sent = false;
  // One that was in use until now may only have been closed by its server, and one that is
  // read-only is good for readers.
  const bool isBad =
      answer.isRefused || answer.timedOut || !m_isProven || number == ER_SERVER_SHUTDOWN;
  if (isBad && !s_isReadOnly(number)) {
    HostHealth::failed(m_handle->host(), Clock::now());
  }
  answer.lost = true;
  answer.hosts = m_handle->hosts();
  answer.connectTime = m_handle->connectTime();
  m_handle.reset();
  return answer;
}

void Connection::Impl::refuse(const char* context, std::string_view statement) {
  Error::Facts facts = m_handle->lastError(statement);
  // A node of a cluster that is cut off while it commits may have passed the change on.
  if (facts.number == ER_ERROR_DURING_COMMIT) {
    leaveHost();
    facts.outcomeUnknown = true;
    facts.message = "Whether it was carried out is unknown: " + facts.message;
    throw Error(context, s_file, sourceLine(), facts);
  }
  // An error says nothing of the transaction, which it may have ended (a deadlock does). A
  // statement that does nothing brings the answer, so that the next one is not carried out on its
  // own.
  if (m_guarded) {
    const PipeGuard guard(m_handle->usesTls());
    static constexpr std::string_view s_nothing = "do 0";
    tellStatement(s_nothing);
    mysql_real_query(m_handle->mysql(), s_nothing.data(), s_nothing.size());
  }
  throw Error(context, s_file, sourceLine(), facts);
}

MYSQL_RES* Connection::Impl::run(std::string_view text, bool mayRepeat, const char* context) {
  const Clock::time_point start = Clock::now();
  ready(context, text);
  const bool hadTransaction = inTransaction();
  const bool isImpatient = m_patience && m_handle->hosts() > 1 && !hadTransaction && mayRepeat &&
                           onlyReads(text) && isRepeatable(text);
  const Answer answer =
      attempt(text, context, isImpatient ? Deadline(Clock::now() + *m_patience) : Deadline());
  if (!answer.lost) return answer.result;
  if (hadTransaction && (!answer.sent || staysInTransaction(text))) {
    s_throwLostTransaction(context, answer.facts);
  }
  // A time-out is no reason to ask again: the server may still be at work on the first one.
  const bool repeatable =
      isImpatient || (!hadTransaction && mayRepeat && !answer.timedOut && isRepeatable(text));
  if (answer.sent && !repeatable) throw s_unknownOutcome(context, answer.facts, answer.timedOut);
  return runAgain(text, start, answer, context);
}

// Waits a little if all hosts have refused, as cut off from their cluster, for no longer than
// connecting may take; false when there is nothing to wait for. When a node dies, the others refuse
// until they have agreed to go on without it.
bool Connection::Impl::awaitCluster(const Answer& answer) {
  if (answer.facts.number != ER_UNKNOWN_COM_ERROR) return false;
  const Clock::duration refusing = HostHealth::allRefuse(Clock::now());
  if (std::max(refusing, m_connecting) + s_clusterPause > answer.connectTime) return false;
  std::this_thread::sleep_for(s_clusterPause);
  m_connecting += s_clusterPause;
  return true;
}

// Repetitions get what the first sending left of the time for reading.
MYSQL_RES* Connection::Impl::runAgain(std::string_view text, Clock::time_point start,
                                      const Answer& first, const char* context) {
  Answer answer = first;
  // Hosts that refuse do so at once.
  for (std::size_t i = 0; i == 0 || answer.isRefused; ++i) {
    if (i >= first.hosts && !awaitCluster(answer)) break;
    try {
      reopen(m_database);
      answer = attempt(text, context, s_end(start + m_connecting, first.limit));
    } catch (const Exception& failure) {
      // Whatever failed now, the first sending may have been carried out.
      if (!first.sent) throw;
      throw s_unknownOutcome(context, first.facts, first.timedOut, &failure);
    }
    if (!answer.lost) return answer.result;
  }
  if (first.sent || answer.sent) throw s_unknownOutcome(context, answer.facts, answer.timedOut);
  if (answer.isRefused) throw Error(context, s_file, sourceLine(), answer.facts);
  throw s_notSent(context, answer.facts);
}

void Connection::Impl::takeInResults(std::string_view text, const char* context) {
  MYSQL* const mysql = m_handle->mysql();
  const PipeGuard guard(m_handle->usesTls());
  while (mysql_more_results(mysql) != 0) {
    if (mysql_next_result(mysql) == 0) {
      const bool hasRows = mysql_field_count(mysql) != 0;
      const ResultOwner further(mysql_store_result(mysql), &mysql_free_result);
      if (!hasRows || further) continue;
    }
    const Error::Facts facts = m_handle->lastError(text);
    if (isConnectionLoss(facts.number)) throw s_unknownOutcome(context, facts, false);
    throw Error(context, s_file, sourceLine(), facts);
  }
}

void Connection::Impl::execute(std::string_view text, RowParser* parser, Connection* owner,
                               bool mayRepeat, const char* context) {
  const ResultOwner stored(run(text, mayRepeat, context), &mysql_free_result);
  const Drain drain(*m_handle);
  if (stored && parser != nullptr) {
    DbResult result(stored.get());
    parser->parse(owner, &result);
  }
  takeInResults(text, context);
}

Connection::Connection(const std::string& database)
    : m_impl(
          std::make_unique<Impl>(Target{OptionSource::current(), std::nullopt, std::nullopt, {}})) {
  m_impl->begin(database);
}

Connection::Connection(const SocketAddress& server, const std::string& database)
    : m_impl(Impl::at(server)) {
  m_impl->begin(database);
}

Connection::Connection(const Host& host, const std::string& database)
    : m_impl(std::make_unique<Impl>(Target{OptionSource::current(), std::nullopt, host.name, {}})) {
  m_impl->begin(database);
}

Connection::~Connection() = default;

std::vector<Connection::Host> Connection::hosts() {
  std::vector<Host> hosts;
  for (const auto& host :
       Handle::hostsFor({OptionSource::current(), std::nullopt, std::nullopt, {}})) {
    hosts.push_back({host.text()});
  }
  return hosts;
}

SocketAddress Connection::defaultAddress() {
  Clock::duration spent{};
  return Handle::open({OptionSource::current(), std::nullopt, std::nullopt, {}}, {}, spent)
      ->peerAddress();
}

bool Connection::dbSelectIfExists(const std::string& name) {
  return !m_impl->select(name, s_selectIfExists).has_value();
}

void Connection::dbSelect(const std::string& name) {
  const std::optional<Error> missing = m_impl->select(name, s_select);
  if (missing) throw Error(*missing);
}

void Connection::dbDelete(const std::string& name) {
  m_impl->execute("drop database if exists " + quotedName(name), nullptr, this, true, s_delete);
  m_impl->forget(name);
}

void Connection::leaveHost() noexcept {
  m_impl->leaveHost();
}

void Connection::setPatience(std::chrono::milliseconds patience) noexcept {
  m_impl->setPatience(patience);
}

bool Connection::inTransaction() const noexcept {
  return m_impl->inTransaction();
}

std::string Connection::serverVersion() {
  return mysql_get_server_info(m_impl->ready(s_open, {}).mysql());
}

unsigned long Connection::id() {
  return mysql_thread_id(m_impl->ready(s_open, {}).mysql());
}

Connection::Host Connection::host() {
  return {m_impl->ready(s_open, {}).host()};
}

SocketAddress Connection::peerAddress() {
  return m_impl->ready(s_open, {}).peerAddress();
}

std::optional<Encryption> Connection::encryption() {
  return m_impl->ready(s_open, {}).encryption();
}

}  // namespace Tessel::Database
