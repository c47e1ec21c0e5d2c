// What the untyped result pointer of the row parsers points to. Private to this directory.
#ifndef TSL_DATABASE_DBRESULT_H
#define TSL_DATABASE_DBRESULT_H

#include <cstdint>

#include "database/Handle.h"

namespace Tessel::Database {

// A stored result and the place of the reader in it. One thread at a time.
struct DbResult {
  explicit DbResult(MYSQL_RES* stored)
      : result(stored),
        columns(mysql_num_fields(stored)),
        rows(static_cast<std::int64_t>(mysql_num_rows(stored))) {}

  MYSQL_RES* result;  // Owned by whoever made this object; must outlive it.
  unsigned int columns;
  std::int64_t rows;
  std::int64_t next = 0;                   // The row that mysql_fetch_row() gives next.
  MYSQL_ROW row = nullptr;                 // Fetched last, or null.
  const unsigned long* lengths = nullptr;  // Of the columns of `row`; null with it.
};

}  // namespace Tessel::Database

#endif
