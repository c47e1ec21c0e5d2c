// Handle: the settings of every connection, and the care for signals and forks.
#include "database/Handle.h"

#include <errmsg.h>
#include <fcntl.h>
#include <mysqld_error.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "base/sourceLine.h"
#include "database/ClientOptions.h"
#include "database/SessionSetting.h"
#include "database/StatementObserver.h"
#include "database/TlsOptions.h"
#include "database/TlsSession.h"
#include "database/Wait.h"

namespace Tessel::Database {

namespace {

constexpr char s_context[] = "Database::Connection";
constexpr char s_file[] = "Handle";

// Seconds. An option file may change the first; the others bound how long a caller can hang on a
// server that stopped answering.
constexpr std::chrono::seconds s_connectTimeout{10};
constexpr unsigned int s_readTimeout = 30;
constexpr unsigned int s_writeTimeout = 30;

// What a host gets that failed some time ago, while another one works.
constexpr std::chrono::milliseconds s_probe{300};
// Room for what the client library does while it connects: encryption, name services.
constexpr std::size_t s_stackSize = 256UL * 1024;

// What every session runs with, whatever the server's settings. The strict modes make a text that
// does not fit an error, backslash escapes are what our escaping writes, and the collation makes
// new databases distinguish accents but not letter case. MariaDB and MySQL each execute only their
// own one of the two comments.
constexpr std::string_view s_sessionSetUp =
    "set names utf8mb4, autocommit=1, sql_mode='STRICT_TRANS_TABLES,STRICT_ALL_TABLES,"
    "NO_ZERO_IN_DATE,NO_ZERO_DATE,ERROR_FOR_DIVISION_BY_ZERO,NO_ENGINE_SUBSTITUTION'"
    " /*M!101000 , collation_server=utf8mb4_uca1400_nopad_as_ci*/"
    " /*!80000 , collation_server=utf8mb4_0900_as_ci*/";

constexpr std::string_view s_clusterSetUp = "set session wsrep_sync_wait=7";

// Which server a failed connection was meant for. The password is in none of these fields.
std::string s_destination(const MYSQL& mysql, const Target& target, const Host& host) {
  const auto& options = mysql.options;
  std::string text = "; server: ";
  if (target.address) {
    text += target.address->text();
  } else if (!host.name.empty()) {
    text += host.text();
    if (host.port == 0 && options.port != 0) text += ", port " + std::to_string(options.port);
  } else if (options.host != nullptr && std::string_view(options.host) != "localhost") {
    text += options.host;
    if (options.port != 0) text += ", port " + std::to_string(options.port);
  } else {
    text += options.unix_socket != nullptr ? options.unix_socket : "local socket";
  }
  if (options.user != nullptr) text += "; user: " + std::string(options.user);
  return text + "; from " + target.options.text();
}

// Adds the time from its construction to its destruction to a sum.
class Stopwatch {
 public:
  explicit Stopwatch(Handle::Clock::duration& sum) : m_sum(sum) {}
  ~Stopwatch() { m_sum += Handle::Clock::now() - m_start; }
  Stopwatch(const Stopwatch&) = delete;
  Stopwatch& operator=(const Stopwatch&) = delete;

 private:
  Handle::Clock::duration& m_sum;
  const Handle::Clock::time_point m_start = Handle::Clock::now();
};

// How long connecting may take.
Handle::Clock::duration s_connectTime(const std::vector<Option>& options) {
  const std::string text = lastValue(options, {"connect-timeout", "timeout"}).value_or("");
  int seconds = 0;
  std::from_chars(text.data(), text.data() + text.size(), seconds);
  return seconds > 0 ? std::chrono::seconds(seconds) : s_connectTimeout;
}

// The hosts to try for `target`.
std::vector<Host> s_places(const Target& target, const std::vector<Option>& options) {
  if (target.address) return {Host()};
  const std::vector<Host> hosts = hostsOf(options);
  // A certificate is checked against the name, which must be kept then.
  const bool isKept = isDefault(hosts) || tlsDemand(options).checksName;
  std::vector<Host> places = isKept ? hosts : resolved(hosts);
  if (target.only) {
    std::erase_if(places, [&target](const Host& host) { return host.text() != *target.only; });
    // Its name has other addresses now.
    if (places.empty()) places.push_back(parseHost(*target.only));
  }
  return places;
}

// What to say when no host could be used: the failure of the one host, or those of all.
Error s_noneWorks(const std::vector<Error>& failures, std::size_t hosts, int line = sourceLine()) {
  if (hosts == 1) return failures.front();
  Error::Facts facts{failures.front().number(),
                     failures.front().sqlState(),
                     "None of the " + std::to_string(hosts) + " hosts can be used",
                     {},
                     false};
  for (const Error& failure : failures) {
    facts.message += "; " + failure.stringParameter();
    // The answer of a server says more than its silence.
    if (failure.number() < CR_MIN_ERROR) facts.number = failure.number();
  }
  return {s_context, s_file, line, facts};
}

// True when the client library will connect to `host`, or to what the options name where it is
// null, over a Unix socket.
bool s_usesUnixSocket(const MYSQL& mysql, const char* host) {
  if (host == nullptr) host = mysql.options.host;
  const bool isLocal = host == nullptr || std::string_view(host) == "localhost";
  return isLocal && mysql.options.protocol != MYSQL_PROTOCOL_TCP;
}

sigset_t s_pipeSignal() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  return set;
}

bool s_isPipeSignal(int (*look)(sigset_t*)) {
  sigset_t set;
  sigemptyset(&set);
  look(&set);
  return sigismember(&set, SIGPIPE) == 1;
}

int s_blockedSignals(sigset_t* set) {
  return pthread_sigmask(SIG_BLOCK, nullptr, set);
}

// Makes the client library usable from any thread.
void s_initialiseLibrary() {
  static const bool s_done = [] {
    // The library sets SIGPIPE to "ignore" for the whole process; that is the program's to decide.
    struct sigaction before {};
    const bool known = sigaction(SIGPIPE, nullptr, &before) == 0;
    mysql_library_init(0, nullptr, nullptr);
    if (known) sigaction(SIGPIPE, &before, nullptr);
    return true;
  }();
  static_cast<void>(s_done);
}

// Points `descriptor` elsewhere, so that closing the connection does nothing to the server's end.
bool s_turnAway(int descriptor) {
  const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
  const bool done = nowhere >= 0 && dup3(nowhere, descriptor, O_CLOEXEC) >= 0;
  close(nowhere);
  return done;
}

}  // namespace

// A SIGPIPE that is blocked or pending already is somebody else's and stays so.
PipeGuard::PipeGuard(bool active)
    : m_active(active && !s_isPipeSignal(&s_blockedSignals) && !s_isPipeSignal(&sigpending)) {
  if (!m_active) return;
  const sigset_t set = s_pipeSignal();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

PipeGuard::~PipeGuard() {
  if (!m_active) return;
  const sigset_t set = s_pipeSignal();
  const timespec noTime{};
  while (sigtimedwait(&set, nullptr, &noTime) == -1 && errno == EINTR) {
  }
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

bool isConnectionLoss(unsigned int number) {
  switch (number) {
    case CR_SERVER_GONE_ERROR:
    case CR_SERVER_LOST:
    case CR_SERVER_LOST_EXTENDED:
    case CR_SSL_CONNECTION_ERROR:
    case ER_CONNECTION_KILLED:
    case ER_SERVER_SHUTDOWN:
    case s_clientInteractionTimeout:
      return true;
    default:
      return false;
  }
}

Handle::Handle(MYSQL* mysql) : m_mysql(mysql), m_owner(getpid()) {
  if (mysql == nullptr) throw std::bad_alloc();
}

// A hung server must not hold up whoever is done with it, so the socket is shut first: the goodbyes
// of mysql_close() and of TLS then fail at once. The server sees the end of the stream, undoes what
// was not committed and counts an aborted client.
Handle::~Handle() {
  const PipeGuard guard(usesTls());
  if (!isForeign()) {
    shutdown(descriptor(), SHUT_RDWR);
  } else if (!s_turnAway(descriptor())) {
    close(descriptor());
    return;  // Without what mysql_close() would send and free.
  }
  mysql_close(m_mysql);
}

std::unique_ptr<Handle> Handle::open(const Target& target, const std::string& database,
                                     Clock::duration& spent) {
  s_initialiseLibrary();
  const PipeGuard guard(true);
  const Clock::time_point start = Clock::now();
  const Stopwatch stopwatch(spent);
  const std::vector<Option> options = readOptions(target.options.file);
  const Clock::duration connectTime = s_connectTime(options);
  const Clock::time_point end = start + connectTime - spent;
  const std::vector<Host> hosts = s_places(target, options);
  const std::vector<Attempt> attempts = attemptsAt(hosts, target.avoided, start);
  std::vector<Error> failures;
  for (std::size_t i = 0; i < attempts.size(); ++i) {
    const auto& [host, isProbe] = attempts[i];
    const Clock::time_point now = Clock::now();
    if (i > 0 && now >= end) break;
    const Clock::duration share = (end - now) / static_cast<int>(attempts.size() - i);
    std::unique_ptr<Handle> handle(new Handle(mysql_init(nullptr)));
    handle->m_host = host->text();
    handle->m_hosts = hosts.size();
    handle->m_connectTime = connectTime;
    try {
      const auto until = now + (isProbe ? std::min<Clock::duration>(share, s_probe) : share);
      handle->connect(target, options, *host, database, until);
      handle->enforceLimits(target);
      handle->setUpSession(until);
      HostHealth::worked(handle->m_host);
      return handle;
    } catch (const Error& error) {
      if (error.number() == ER_BAD_DB_ERROR) throw;
      HostHealth::failed(handle->m_host, Clock::now());
      failures.push_back(error);
    }
  }
  throw s_noneWorks(failures, hosts.size());
}

std::vector<Host> Handle::hostsFor(const Target& target) {
  return s_places(target, readOptions(target.options.file));
}

void Handle::connect(const Target& target, const std::vector<Option>& options, const Host& listed,
                     const std::string& database, Clock::time_point until) {
  // The library reads a whole int for this option, and one byte for others.
  const unsigned int noLocalInfile = 0;
  mysql_options(m_mysql, MYSQL_OPT_READ_TIMEOUT, &s_readTimeout);
  mysql_options(m_mysql, MYSQL_OPT_WRITE_TIMEOUT, &s_writeTimeout);
  mysql_options(m_mysql, MYSQL_OPT_LOCAL_INFILE, &noLocalInfile);
  mysql_options(m_mysql, MYSQL_SET_CHARSET_NAME, "utf8mb4");
  applyOptions(m_mysql, options);
  // For what the client library does without letting go, such as agreeing on encryption.
  const auto seconds = std::chrono::ceil<std::chrono::seconds>(until - Clock::now()).count();
  const auto connectTimeout = static_cast<unsigned int>(std::max<std::int64_t>(1, seconds));
  mysql_options(m_mysql, MYSQL_OPT_CONNECT_TIMEOUT, &connectTimeout);

  if (mysql_options(m_mysql, MYSQL_OPT_NONBLOCK, &s_stackSize) != 0) throw std::bad_alloc();

  const char* host = listed.name.empty() ? nullptr : listed.name.c_str();
  const char* path = nullptr;
  unsigned int port = listed.port;
  if (target.address && target.address->family() == SocketAddress::Family::Unix) {
    host = "localhost";
    path = target.address->host().c_str();
  } else if (target.address) {
    host = target.address->host().c_str();
    port = target.address->port();
  }
  // In a list, "localhost" is a host with a port like the others.
  const unsigned int tcp = MYSQL_PROTOCOL_TCP;
  if (listed.name == "localhost") mysql_options(m_mysql, MYSQL_OPT_PROTOCOL, &tcp);
  TlsDemand demand;
  if (s_usesUnixSocket(*m_mysql, host)) {
    excuseTls(m_mysql);
  } else {
    demand = tlsDemand(options);
    demandTls(m_mysql, demand);
  }
  // The options must outlive a failure, for the message.
  const auto* const connected = callUntil<MYSQL*>(
      m_mysql, until,
      [&](MYSQL** result) {
        return mysql_real_connect_start(result, m_mysql, host, nullptr, nullptr,
                                        database.empty() ? nullptr : database.c_str(), port, path,
                                        CLIENT_REMEMBER_OPTIONS);
      },
      [this](MYSQL** result, int events) {
        return mysql_real_connect_cont(result, m_mysql, events);
      });
  if (connected == nullptr) {
    Error::Facts facts = lastError({});
    facts.message += s_destination(*m_mysql, target, listed);
    throw Error(s_context, s_file, sourceLine(), facts);
  }
  checkTls(m_mysql, demand, until);
  m_encryption = encryptionOf(m_mysql, demand);
}

// An option file may turn on what this library rests on being off, or, by naming a protocol, lead
// an explicit address to another server.
void Handle::enforceLimits(const Target& target) {
  const my_bool noReconnect = 0;
  const unsigned int noLocalInfile = 0;
  mysql_options(m_mysql, MYSQL_OPT_RECONNECT, &noReconnect);
  mysql_options(m_mysql, MYSQL_OPT_LOCAL_INFILE, &noLocalInfile);
  fcntl(descriptor(), F_SETFD, FD_CLOEXEC);
  constexpr auto s_unix = SocketAddress::Family::Unix;
  if (target.address &&
      (peerAddress().family() == s_unix) != (target.address->family() == s_unix)) {
    throw Error(s_context, s_file, sourceLine(),
                {CR_CONNECTION_ERROR,
                 "HY000",
                 "The protocol that the options ask for does not fit the address" +
                     s_destination(*m_mysql, target, Host()),
                 {},
                 false});
  }
  if ((m_mysql->client_flag & CLIENT_MULTI_STATEMENTS) == 0) return;
  if (mysql_set_server_option(m_mysql, MYSQL_OPTION_MULTI_STATEMENTS_OFF) != 0) {
    throw Error(s_context, s_file, sourceLine(), lastError({}));
  }
}

// Returns the number of the error, 0 for none.
unsigned int Handle::runUntil(std::string_view statement, Clock::time_point until) {
  tellStatement(statement);
  return queryUntil(m_mysql, statement, until) == 0 ? 0 : mysql_errno(m_mysql);
}

void Handle::setUpSession(Clock::time_point until) {
  if (runUntil(s_sessionSetUp, until) != 0) {
    throw Error(s_context, s_file, sourceLine(), lastError(s_sessionSetUp));
  }
  if (!waitsForOtherNodes()) return;
  const unsigned int number = runUntil(s_clusterSetUp, until);
  if (number == 0 || number == ER_UNKNOWN_SYSTEM_VARIABLE) return;
  throw Error(s_context, s_file, sourceLine(), lastError(s_clusterSetUp));
}

int Handle::descriptor() const noexcept {
  return static_cast<int>(mysql_get_socket(m_mysql));
}

SocketAddress Handle::peerAddress() const {
  return SocketAddress::peerOf(descriptor());
}

bool Handle::isForeign() const noexcept {
  return m_owner != getpid();
}

bool Handle::isDead() const noexcept {
  char byte = 0;
  ssize_t count = 0;
  do {
    count = recv(descriptor(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  } while (count < 0 && errno == EINTR);
  return count >= 0 || errno != EAGAIN;
}

bool Handle::inTransaction() const noexcept {
  return (m_mysql->server_status & SERVER_STATUS_IN_TRANS) != 0;
}

Error::Facts Handle::lastError(std::string_view statement) const {
  if (mysql_errno(m_mysql) == CR_OUT_OF_MEMORY) throw std::bad_alloc();
  return {mysql_errno(m_mysql), mysql_sqlstate(m_mysql), mysql_error(m_mysql), statement, false};
}

void checkOptions(const OptionSource& source) {
  s_initialiseLibrary();
  const std::vector<Option> options = readOptions(source.file);
  const std::unique_ptr<MYSQL, decltype(&mysql_close)> scratch(mysql_init(nullptr), &mysql_close);
  if (scratch == nullptr) throw std::bad_alloc();
  applyOptions(scratch.get(), options);
  const std::vector<Host> hosts = hostsOf(options);
  if (!isDefault(hosts) || !s_usesUnixSocket(*scratch, nullptr)) tlsDemand(options);
}

}  // namespace Tessel::Database
