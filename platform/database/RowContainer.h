// The rows that a parser collected.
#ifndef TSL_DATABASE_ROWCONTAINER_H
#define TSL_DATABASE_ROWCONTAINER_H

#include <list>

#include "TslRefcounted.h"
#include "base/Export.h"
#include "database/RowImpl.h"

namespace Tessel::Database {

// A list of rows in the order in which they were added. One thread at a time.
class TSL_EXPORT RowContainer {
 public:
  // Adds `row` at the end; the container shares its body.
  void add(const Ref<RowImpl>& row);
  // The same; takes over the handle itself.
  void add(Ref<RowImpl>&& row);
  // All rows. Valid until the container changes or goes.
  [[nodiscard]] const std::list<Ref<RowImpl>>& rows() const noexcept { return m_rows; }

 private:
  std::list<Ref<RowImpl>> m_rows;
};

}  // namespace Tessel::Database

#endif
