// The names of the tables of a database.
#ifndef TSL_DATABASE_QUERYTABLENAMES_H
#define TSL_DATABASE_QUERYTABLENAMES_H

#include <set>
#include <string>

#include "base/Export.h"
#include "database/Connection.h"

namespace Tessel::Database {

// Names of the tables of the selected database, as of construction. Views count as tables: their
// names are taken just as well. An immutable value.
class TSL_EXPORT QueryTableNames {
 public:
  // Asks the server. Throws Error, also when no database is selected (number 1046).
  explicit QueryTableNames(Connection& connection);

  // The names in byte-wise order; empty when there is no table. Valid as long as this object.
  [[nodiscard]] const std::set<std::string>& names() const noexcept { return m_names; }

 private:
  std::set<std::string> m_names;
};

}  // namespace Tessel::Database

#endif
