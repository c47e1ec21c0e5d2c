// The command `init`: prepares the database without ever dropping it. The library's own preparation
// answers every failure by dropping the whole database; so it is called by --force only. On a
// cluster, one refusal by a node at the wrong moment would empty all nodes.
#include <memory>
#include <string>
#include <vector>

#include "AddressMapDb.h"
#include "cli/Command.h"
#include "cli/DryRun.h"
#include "cli/Intent.h"
#include "database/Connection.h"
#include "tables/Schema.h"
#include "tables/TableNames.h"
#include "tables/TextRows.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

struct InitArguments {
  bool force = false;
  bool dryRun = false;
};

void s_answer(Session& session, bool created, const std::vector<std::string>& changes,
              bool dryRun = false) {
  const Json document{{"database", s_database}, {"created", created}, {"changes", changes}};
  answerChange(session, document, "", dryRun);
  if (session.isJson()) return;
  if (changes.empty()) {
    session.output().line("database " + std::string(s_database) + " is complete; nothing changed");
  }
  for (const std::string& change : changes) {
    session.output().line((dryRun ? "to do: " : "done: ") + change);
  }
}

Schema s_look(Database::Connection& connection) {
  try {
    return lookAtSchema(connection);
  } catch (const Exception& exception) {
    const Failure failure = failureOf(exception, "looking at the database");
    throw Failure(failure.code(), failure.subject(), failure.why(),
                  "nothing was changed; " + failure.hint());
  }
}

void s_refuseUnfitting(const Schema& schema) {
  if (schema.unfitting.empty()) return;
  throw Failure(ExitCode::BadData, "database " + std::string(s_database), summaryOf(schema),
                "nothing was changed; these are not tables of this library: move them away, or"
                " correct them with an SQL client");
}

std::vector<RowChange> s_stepsOf(const Schema& schema) {
  std::vector<RowChange> changes;
  for (const SchemaStep step : schema.missing) {
    changes.push_back({tableOf(step), "", std::nullopt, textOf(step)});
  }
  for (const OwnStep& step : schema.offered) {
    changes.push_back({step.table, "", std::nullopt, step.text});
  }
  return changes;
}

// Carries out what is missing.
void s_complete(const Session& session, Database::Connection& connection, const Schema& schema) {
  // First, as the record needs them. They hold nothing yet.
  for (const OwnStep& step : schema.offered) {
    runStatement(connection, step.statement);
    session.detail("done: " + step.text);
  }
  Intent intent(s_stepsOf(schema), Intent::Without::Warn);
  for (const SchemaStep step : schema.missing) {
    carryOut(connection, step);
    session.detail("done: " + textOf(step));
  }
  intent.done();
}

ExitCode s_force(Session& session) {
  say("warning: --force: database " + std::string(s_database) +
      " is dropped with all its tables if anything goes wrong");
  Intent intent({{s_database, "", std::nullopt, "prepare the database by force"}},
                Intent::Without::Warn);
  AddressMapDb::initialize(AddressMapDb::MySQL, false);
  intent.done();
  s_answer(session, false, {"prepared the database by force"});
  return ExitCode::Done;
}

ExitCode s_init(Session& session, const InitArguments& arguments) {
  session.tellTarget();
  const bool dryRun = arguments.dryRun;
  if (arguments.force) return s_force(session);
  Database::Connection connection("");
  const PreparationLock lock(connection);
  const Schema schema = s_look(connection);
  if (!schema.present) {
    if (!dryRun) createDatabase(connection);
    s_answer(session, !dryRun, {"create the database with tables alias and mask"}, dryRun);
    return ExitCode::Done;
  }
  s_refuseUnfitting(schema);
  std::vector<std::string> changes;
  for (const RowChange& step : s_stepsOf(schema)) changes.push_back(*step.after);
  if (!dryRun) s_complete(session, connection, schema);
  s_answer(session, false, changes, dryRun);
  return ExitCode::Done;
}

}  // namespace

void addInitCommand(Command& top) {
  const auto arguments = std::make_shared<InitArguments>();
  Command init = top.command(
      "init", "Create the database, or complete an old or partial one; never drops anything",
      "  tsl-address-map init\n"
      "  tsl-address-map --option-file /etc/mail/database.cnf init\n"
      "Checks the database first. A complete database stays unchanged; missing tables, columns and"
      " indexes are added.\nTables that are not this library's are refused (65), and so is a "
      "database"
      " that cannot be read (75, 78).\n"
      "With --json {\"database\", \"created\", \"changes\"}.\n",
      Preparation::Server, withArguments(s_init, arguments));
  Option force = init.flag(
      "--force", arguments->force,
      "DANGEROUS: let the library prepare the database without a check before. If any step"
      " fails, it DROPS THE WHOLE DATABASE with all aliases and masks and creates an"
      " empty one");
  init.flag("--dry-run", arguments->dryRun, "Change nothing; show what would be done")
      .excludes(force);
}

}  // namespace Tessel::Tool
