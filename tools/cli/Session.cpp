// Setting up a run of the tool.
#include "cli/Session.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/bytes.h"
#include "cli/LocalFailure.h"
#include "database/Connection.h"
#include "database/OptionSource.h"
#include "database/SessionSetting.h"
#include "database/StatementObserver.h"
#include "failure/Failure.h"
#include "local/LocalServer.h"
#include "tables/Configuration.h"
#include "tables/Schema.h"
#include "tables/TableNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

constexpr char s_optionFileVariable[] = "TSL_DATABASE_OPTION_FILE";

void s_setEnvironment(const char* name, const std::string& value) {
  if (setenv(name, value.c_str(), 1) == 0) return;  // NOLINT(concurrency-mt-unsafe): one thread yet
  throw Failure(ExitCode::Unavailable, std::string("setting ") + name,
                std::generic_category().message(errno), "");
}

void s_requireUsable(const std::string& optionFile) {
  try {
    Database::OptionSource::of(optionFile);
  } catch (const Exception& exception) {
    throw Failure(ExitCode::Configuration, "--option-file", reasonOf(exception),
                  "name a readable MySQL option file with a group [client] or [tsl-address-map]");
  }
}

void s_requireDirectory(const std::string& directory) {
  std::error_code error;
  if (std::filesystem::is_directory(directory, error)) return;
  const bool isDenied = error == std::errc::permission_denied;
  throw Failure(ExitCode::Configuration, "configuration directory '" + directory + "'",
                error ? error.message() : "it is not a directory",
                isDenied ? "let this user enter the directories above it (chmod +x), or run this as"
                           " another user"
                         : "create it with mkdir, or name the right one");
}

// `statement` on one line, fit to be shown; of a long one the beginning.
void s_tellStatement(std::string_view statement) noexcept {
  // Enough for every statement but those on many rows.
  constexpr std::size_t s_longest = 500;
  const std::string_view start = cutUtf8(statement, s_longest);
  try {
    std::string text = "sql: " + std::string(start);
    if (start.size() < statement.size()) {
      text += "... (" + std::to_string(statement.size() - start.size()) + " bytes more)";
    }
    say(text);
  } catch (const std::bad_alloc&) {
    // A message must not end the work.
  }
}

void s_createMissingDatabase() {
  Database::Connection connection("");
  const PreparationLock lock(connection);
  if (connection.dbSelectIfExists(s_database)) return;
  createDatabase(connection);
}

}  // namespace

Session::Session(GlobalOptions options) : m_options(std::move(options)), m_output(m_options.json) {}

void Session::prepare(Preparation preparation) {
  if (m_options.verbose) Database::setStatementObserver(&s_tellStatement);
  Database::waitForOtherNodes(true);
  checkTable();
  if (m_options.local && m_options.optionFile) {
    throw Failure(ExitCode::Usage, "--local and --option-file", "both name a server",
                  "give one of them");
  }
  if (m_options.optionFile) {
    s_requireUsable(*m_options.optionFile);
    s_setEnvironment(s_optionFileVariable, *m_options.optionFile);
  }
  if (preparation != Preparation::Nothing && m_options.local) startLocal();
  if (m_options.cmf) {
    s_requireDirectory(*m_options.cmf);
    s_setEnvironment(s_cmfVariable, *m_options.cmf);
  }
  if (preparation == Preparation::Database && m_options.local) s_createMissingDatabase();
}

void Session::useLocal() {
  if (!m_options.local) m_options.local.emplace();
}

void Session::checkTable() const {
  if (!m_options.table) return;
  const std::string& name = *m_options.table;
  // The library writes the name into its statements as it is.
  if (isTableName(name)) return;
  throw Failure(ExitCode::Usage, "--table '" + name + "'",
                "a table name has 1 to 58 letters, digits and underscores",
                "see 'tsl-address-map status' for the tables there are");
}

void Session::startLocal() {
  withLocalServer(localDirectory(), [this](auto& server) {
    if (server.start()) {
      say("started the private server in " + server.directory() +
          "; 'tsl-address-map local stop --local=" + server.directory() + "' stops it");
    }
    s_setEnvironment(s_optionFileVariable, server.optionFile());
    s_setEnvironment(s_cmfVariable, server.cmfDirectory());
  });
}

std::string Session::localDirectory() const {
  const std::string directory = m_options.local.value_or("");
  return directory.empty() ? defaultLocalDirectory() : directory;
}

void Session::detail(const std::string& text) const {
  if (m_options.verbose) say(text);
}

void Session::tellTarget(std::optional<TableKind> kind) const {
  if (!m_options.verbose) return;
  Database::Connection connection("");
  say("asking the server at " + connection.peerAddress().text() + " (" +
      connection.serverVersion() + "), database " + s_database +
      (kind ? ", table " + sqlTableName(*kind, tableName()) : ""));
}

}  // namespace Tessel::Tool
