// tsl-address-map: the command-line tool of the address-map library.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

#include "AnswerCommand.h"
#include "ServeCommand.h"
#include "cli/Command.h"
#include "cli/Session.h"
#include "failure/Failure.h"
#include "serve/image/ConfigurationHelper.h"
#include "tables/History.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

constexpr char s_footer[] =
    "Examples:\n"
    "  tsl-address-map --local alias set team@example.com ann@example.com bob@example.net\n"
    "  tsl-address-map --local alias expand team@example.com\n"
    "  tsl-address-map --option-file /etc/mail/database.cnf status\n"
    "\n"
    "Global options may come before or after the command words. Results go to standard output,\n"
    "one item per line or, with --json, as one JSON document; everything else goes to standard\n"
    "error.\n"
    "\n"
    "Exit status: 0 found or done, 1 not found, 64 wrong usage, 65 bad data (an address or a row\n"
    "of a table is malformed), 74 the answer could not be written, 75 the database or the\n"
    "configuration could not be asked, 78 wrong settings or rights, or no such table.\n"
    "\n"
    "The database server is the one that the MySQL option files name, groups [client] and\n"
    "[tsl-address-map], unless --local or --option-file (environment:\n"
    "TSL_DATABASE_OPTION_FILE) is given. The configuration directory is that of TSL_CMF_PATH,\n"
    "or /var/lib/tsl/cmf.\n"
    "'tsl-address-map COMMAND --help' and 'tsl-address-map COMMAND COMMAND --help' say more.";

void s_addGlobalOptions(Command& top, GlobalOptions& options) {
  top.flagWithValue("--local", options.local, "[=DIR]",
                    "Use the private server in DIR (default: $XDG_STATE_HOME/tsl-address-map or"
                    " ~/.local/state/tsl-address-map); started if needed");
  top.option("--option-file", options.optionFile, "FILE",
             "Read this MySQL option file instead of the standard ones");
  top.option("--cmf", options.cmf, "DIR", "The configuration directory");
  top.option("--table", options.table, "NAME", "Use the tables alias_NAME and mask_NAME");
  top.flag("--json", options.json, "Answer with one JSON document");
  top.flag("--verbose", options.verbose,
           "Show which server and table are asked, the SQL, and the whole chain of a failure");
}

void s_addCommands(Command& top) {
  addLocalCommands(top);
  Serve::addServeCommand(top);
  addInitCommand(top);
  addStatusCommand(top);
  addAliasCommands(top);
  addMaskCommands(top);
  Serve::addAnswerCommand(top);
  addCheckCommand(top);
  addMoveCommands(top);
  addHistoryCommand(top);
  addDiffCommand(top);
  addUndoCommand(top);
  addTableCommands(top);
  addDomainCommands(top);
  addUserCommands(top);
}

// True for what the parser takes for a list; address literals of domains look like one.
bool s_isList(std::string_view word) {
  if (word.size() < 2 || word.front() != '[' || word.back() != ']') return false;
  const bool literal = (word[1] >= '0' && word[1] <= '9') || word.substr(1, 5) == "IPv6:";
  return !literal || word.find('@') != std::string_view::npos;
}

// The parser treats some words as its own notation and would silently change or drop them.
void s_refuseParserNotation(int argc, const char* const* argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    if (word == "--local=") {
      throw Failure(ExitCode::Usage, "--local=", "no directory is given",
                    "write --local=DIR, or --local alone for the default directory");
    }
    if (word.starts_with("--") && word.size() > 3 && word.ends_with('=')) {
      const std::string option(word.substr(0, word.size() - 1));
      throw Failure(ExitCode::Usage, option, "no value is given",
                    "write the value behind '=', or leave the option out");
    }
    if (word == "++" || s_isList(word)) {
      throw Failure(ExitCode::Usage, "argument '" + std::string(word) + "'",
                    "it is not an address, a domain or an option", "see 'tsl-address-map --help'");
    }
  }
}

ExitCode s_run(const Choice& chosen, const GlobalOptions& options) {
  try {
    Session session(options);
    session.prepare(chosen.preparation);
    const ExitCode code = chosen.run(session);
    session.output().flush();
    return code;
  } catch (const std::exception& exception) {
    // Answers from before the failure come first.
    static_cast<void>(std::fflush(stdout));
    const Failure failure = failureOf(exception, chosen.words);
    report(failure);
    if (options.verbose) say(std::string("detail: ") + exception.what());
    return failure.code();
  }
}

ExitCode s_parseAndRun(int argc, char** argv) {
  CommandLine line("Manages the alias tables and address masks of a mail server.", s_footer);
  Command top = line.top();
  GlobalOptions options;
  s_addGlobalOptions(top, options);
  s_addCommands(top);
  const Choice* choice = nullptr;
  try {
    s_refuseParserNotation(argc, argv);
    choice = line.parse(argc, argv);
  } catch (const Failure& failure) {
    report(failure);
    return failure.code();
  }
  return choice != nullptr ? s_run(*choice, options) : ExitCode::Done;
}

// A socket or file that is opened while a standard descriptor is closed would take its place, and
// receive the messages.
void s_occupyStandardDescriptors() {
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    // Open for the wrong direction on purpose: using it is an error, as it is for a closed one.
    const int flags = descriptor == 0 ? O_WRONLY : O_RDONLY;
    if (fcntl(descriptor, F_GETFD) == -1) static_cast<void>(open("/dev/null", flags));
  }
}

}  // namespace

}  // namespace Tessel::Tool

int main(int argc, char** argv) {
  try {
    Tessel::Tool::s_occupyStandardDescriptors();
    // A write reports a closed reader; `Output` then ends the process quietly.
    std::signal(SIGPIPE, SIG_IGN);
    // A limit on file sizes must show as a failed write.
    std::signal(SIGXFSZ, SIG_IGN);
    // For the service alone, which runs this program once more.
    if (argc == 2 && std::string_view(argv[1]) == Tessel::Serve::s_helperCommand) {
      return Tessel::Serve::helpWithConfiguration(STDIN_FILENO);
    }
    Tessel::Tool::setChangeAuthor(argc, argv);
    return static_cast<int>(Tessel::Tool::s_parseAndRun(argc, argv));
  } catch (const std::exception& exception) {
    Tessel::Tool::report(Tessel::Tool::failureOf(exception, "starting"));
    return static_cast<int>(Tessel::Tool::ExitCode::Unavailable);
  }
}
