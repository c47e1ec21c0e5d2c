// Reading one row of an address-mask table.
#include "mask/AddressMaskRow.h"

#include "base/Logger.h"
#include "database/db_result.h"

namespace Tessel::Database {

namespace {

constexpr unsigned int s_logEmptyColumn = 0x300002a;

}  // namespace

AddressMaskRow::AddressMaskRow() = default;

AddressMaskRow::~AddressMaskRow() = default;

bool AddressMaskRow::parse(void* connection, void* result, void* row) {
  if (db_result_field_length(result, 0) == 0 || db_result_field_length(result, 1) == 0) {
    // Deliberate: the message says nothing but its code; log watchers look for that.
    Logger::instance(false)(s_logEmptyColumn, 0, "%s", " ");
    return false;
  }
  m_private = EmailAddress::rfc5321Parse(db_result_get_value(connection, result, row, 0), false);
  m_public = EmailAddress::rfc5321Parse(db_result_get_value(connection, result, row, 1), false);
  return true;
}

}  // namespace Tessel::Database
