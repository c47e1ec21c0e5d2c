// db_result: reading a stored result row by row.
#include "database/db_result.h"

#include "database/DbResult.h"

using Tessel::Database::DbResult;

int64_t db_result_row_num(void* result) {
  return result != nullptr ? static_cast<DbResult*>(result)->rows : 0;
}

int64_t db_result_row_num(void* connection, void* result) {
  static_cast<void>(connection);
  return db_result_row_num(result);
}

unsigned int db_result_column_num(void* result) {
  return result != nullptr ? static_cast<DbResult*>(result)->columns : 0;
}

const char* db_result_column_name(void* result, unsigned int column) {
  const auto* const self = static_cast<const DbResult*>(result);
  if (self == nullptr || column >= self->columns) return "";
  return mysql_fetch_field_direct(self->result, column)->name;
}

void* db_result_fetch_row(void* result, int64_t index) {
  auto* const self = static_cast<DbResult*>(result);
  if (self == nullptr || index < 0 || index >= self->rows) return nullptr;
  // Seeking walks a linked list from its start, so it is done only where the order asks for it.
  if (index != self->next) mysql_data_seek(self->result, static_cast<unsigned long long>(index));
  self->row = mysql_fetch_row(self->result);
  self->lengths = self->row != nullptr ? mysql_fetch_lengths(self->result) : nullptr;
  self->next = index + 1;
  return self->row;
}

const char* db_result_get_value(void* connection, void* result, void* row, unsigned int column) {
  static_cast<void>(connection);
  const auto* const self = static_cast<const DbResult*>(result);
  if (self == nullptr || row == nullptr || column >= self->columns) return "";
  const char* const value = static_cast<MYSQL_ROW>(row)[column];
  return value != nullptr ? value : "";
}

size_t db_result_field_length(void* result, unsigned int column) {
  const auto* const self = static_cast<const DbResult*>(result);
  if (self == nullptr || self->lengths == nullptr || column >= self->columns) return 0;
  return self->lengths[column];
}
