// One run of the tool: its global options, what they set up, and its output.
#ifndef TSL_TOOLS_CLI_SESSION_H
#define TSL_TOOLS_CLI_SESSION_H

#include <optional>
#include <string>

#include "tables/TableNames.h"
#include "terminal/Output.h"

namespace Tessel::Tool {

// The global options as they were given.
struct GlobalOptions {
  std::optional<std::string> local;  // Empty text: the default directory.
  std::optional<std::string> optionFile;
  std::optional<std::string> cmf;
  std::optional<std::string> table;
  bool json = false;
  bool verbose = false;
};

// What a command needs before it runs.
enum class Preparation {
  Nothing,   // Not even the server that --local names.
  Server,    // With --local, a running server.
  Database,  // With --local, a running server with the database.
};

// One thread.
class Session {
 public:
  explicit Session(GlobalOptions options);

  // Makes the options known to the libraries, by the environment, and starts the private server
  // where `preparation` asks for it. Throws Failure. Must run before any other call of a library.
  void prepare(Preparation preparation);

  [[nodiscard]] Output& output() noexcept { return m_output; }
  [[nodiscard]] bool isJson() const noexcept { return m_options.json; }
  // As if --local had been given.
  void useLocal();
  // The directory of the private server that --local or the default names.
  [[nodiscard]] std::string localDirectory() const;
  // Store name that --table gives; empty for the default table.
  [[nodiscard]] std::string tableName() const { return m_options.table.value_or(""); }

  // Writes to standard error, with --verbose only.
  void detail(const std::string& text) const;
  // With --verbose, says which server is asked, and which table of `kind`; nothing for commands on
  // the whole database. Throws Exception when the server cannot be reached.
  void tellTarget(std::optional<TableKind> kind = std::nullopt) const;

 private:
  void checkTable() const;
  void startLocal();

  GlobalOptions m_options;
  Output m_output;
};

}  // namespace Tessel::Tool

#endif
