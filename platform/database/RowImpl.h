// One row of a result, as an object.
#ifndef TSL_DATABASE_ROWIMPL_H
#define TSL_DATABASE_ROWIMPL_H

#include "TslRefcounted.h"
#include "base/Export.h"

namespace Tessel::Database {

// Base of the row types: a reference-counted body, held as `Ref<RowImpl>`. One thread at a time may
// change a row; any number may read it.
class TSL_EXPORT RowImpl : public virtual RefImpl, private NonCopyable {
 public:
  RowImpl() = default;
  ~RowImpl() override;
  // Fills the object from `row` of `result` with the functions of db_result.h. Returns false when
  // the row is not a valid one; the object is then as documented by its type.
  virtual bool parse(void* connection, void* result, void* row) = 0;
};

}  // namespace Tessel::Database

#endif
