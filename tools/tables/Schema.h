// The state of the database, compared with what the library needs, and the steps to complete it.
// None of them can lose data.
#ifndef TSL_TOOLS_TABLES_SCHEMA_H
#define TSL_TOOLS_TABLES_SCHEMA_H

#include <set>
#include <string>
#include <vector>

#include "database/Connection.h"
#include "tables/OwnTables.h"

namespace Tessel::Tool {

// One thing that is missing in an existing database.
enum class SchemaStep { CreateMask, AddPublicIndex, CreateAlias, AddAllUsers, WidenMembers };

// What was found.
struct Schema {
  bool present = false;                // The database is there.
  std::set<std::string> tables;        // All its tables.
  std::vector<SchemaStep> missing;     // In the order in which they must be carried out.
  std::vector<std::string> unfitting;  // What no step can repair, in words.
  std::vector<OwnStep> offered;        // What the tool would add for itself. Complete without it.

  [[nodiscard]] bool isComplete() const { return present && missing.empty() && unfitting.empty(); }
};

// While it exists, no other run of this tool prepares the database of the same server. Without it,
// two concurrent runs of the library could take an incomplete database for a broken one, and drop
// it.
class PreparationLock {
 public:
  // Waits for another run. Throws Exception or Failure without the lock. `connection` must outlive
  // the lock.
  explicit PreparationLock(Database::Connection& connection);
  ~PreparationLock();
  PreparationLock(const PreparationLock&) = delete;
  PreparationLock& operator=(const PreparationLock&) = delete;

 private:
  Database::Connection& m_connection;
  bool m_held = false;
};

// Reads the state of the database and its base tables; selects it if it exists. Throws Exception
// when that fails, and when the user has too few rights to see the whole state.
Schema lookAtSchema(Database::Connection& connection);

// Reads the state of one table of the selected database as if it were the base table of its kind.
// Throws Exception as above.
Schema lookAtTable(Database::Connection& connection, const std::string& table, bool isMask);

// Creates the database with its base tables, as the library prepares one, and the tables of this
// tool, selects it, and records
// that. Drops nothing when it fails, so that lookAtSchema() finds what is missing. Throws
// Exception.
void createDatabase(Database::Connection& connection);

// Carries out one step on the selected database. Throws Exception; only this step is missing then.
void carryOut(Database::Connection& connection, SchemaStep step);

// The base table that the step is about.
const std::string& tableOf(SchemaStep step);
// What the step does, in words; for another table than the base table of its kind with its name.
std::string textOf(SchemaStep step);
std::string textOf(SchemaStep step, const std::string& table);

// The state in one line.
std::string summaryOf(const Schema& schema);

}  // namespace Tessel::Tool

#endif
