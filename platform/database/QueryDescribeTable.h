// The columns of a table.
#ifndef TSL_DATABASE_QUERYDESCRIBETABLE_H
#define TSL_DATABASE_QUERYDESCRIBETABLE_H

#include <list>
#include <string>

#include "base/Export.h"
#include "database/Connection.h"

namespace Tessel::Database {

// One column.
struct Field {
  std::string name;
  std::string type;          // As the server writes it, for example "varchar(255)".
  bool nullable = false;     // May hold NULL.
  std::string key;           // "PRI", "UNI", "MUL" or empty.
  std::string defaultValue;  // Empty also for none and for NULL.
  std::string extra;         // For example "auto_increment".
};

// The columns of a table or view of the selected database, as of construction. An immutable value.
class TSL_EXPORT QueryDescribeTable {
 public:
  // Asks the server about `table`, which may be any text. Throws Error; number 1146 when there is
  // no such table.
  QueryDescribeTable(Connection& connection, const std::string& table);

  // The columns in the order of the table. Valid as long as this object.
  [[nodiscard]] const std::list<Field>& fields() const noexcept { return m_fields; }

 private:
  std::list<Field> m_fields;
};

}  // namespace Tessel::Database

#endif
