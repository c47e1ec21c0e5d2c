// The database as it stands, compared with what the library needs, and the steps from one to the
// other. None of them can lose data.
#ifndef TSL_TOOLS_TABLES_SCHEMA_H
#define TSL_TOOLS_TABLES_SCHEMA_H

#include <set>
#include <string>
#include <vector>

#include "database/Connection.h"

namespace Tessel::Tool {

// One thing that is missing in a database that is there.
enum class SchemaStep { CreateMask, AddPublicIndex, CreateAlias, AddAllUsers, WidenMembers };

// What was found.
struct Schema {
  bool present = false;                // The database is there.
  std::set<std::string> tables;        // All its tables.
  std::vector<SchemaStep> missing;     // In the order in which they must be carried out.
  std::vector<std::string> unfitting;  // What no step can repair, in words.

  [[nodiscard]] bool isComplete() const { return present && missing.empty() && unfitting.empty(); }
};

// Keeps other runs of this tool from preparing the database of the same server while it lives.
// Without it the library, run twice at once, could take a half-made database for a broken one, and
// drop it.
class PreparationLock {
 public:
  // Waits for another run. Throws Exception or Failure when the lock cannot be had. `connection`
  // must outlive the lock.
  explicit PreparationLock(Database::Connection& connection);
  ~PreparationLock();
  PreparationLock(const PreparationLock&) = delete;
  PreparationLock& operator=(const PreparationLock&) = delete;

 private:
  Database::Connection& m_connection;
  bool m_held = false;
};

// Looks at the database and its base tables; selects it when it is there. Throws Exception when it
// cannot be looked at.
Schema lookAtSchema(Database::Connection& connection);

// Looks at one table of the selected database as if it were the base table of its kind. Throws
// Exception when it cannot be looked at.
Schema lookAtTable(Database::Connection& connection, const std::string& table, bool isMask);

// Carries out one step on the selected database. Throws Exception; nothing but this step is undone
// or missing then.
void carryOut(Database::Connection& connection, SchemaStep step);

// What the step does, in words; for another table than the base table of its kind with its name.
std::string textOf(SchemaStep step);
std::string textOf(SchemaStep step, const std::string& table);

// The state in one line.
std::string summaryOf(const Schema& schema);

}  // namespace Tessel::Tool

#endif
