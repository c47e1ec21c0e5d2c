// Reading one row of an alias table.
#include "alias/AddressAliasRow.h"

#include "base/Logger.h"
#include "database/db_result.h"

namespace Tessel {

namespace {

constexpr unsigned int s_logEmptyColumn = 0x300002b;

}  // namespace

AddressAliasRow::AddressAliasRow() = default;

AddressAliasRow::~AddressAliasRow() = default;

bool AddressAliasRow::parse(void* connection, void* result, void* row) {
  if (db_result_field_length(result, 0) == 0 || db_result_field_length(result, 1) == 0) {
    // Deliberate: the message says nothing but its code; log watchers look for that. Pinned by
    // AddressAliasDbMySQLOnServer.ARowWithAnEmptyColumnIsLoggedAndKept.
    Logger::instance(false)(s_logEmptyColumn, 0, "%s", " ");
    return false;
  }
  m_alias = EmailAddress::rfc5321Parse(db_result_get_value(connection, result, row, 0), false);
  m_members =
      EmailAddress::rfc5322ParseSet(db_result_get_value(connection, result, row, 1), true, false);
  return true;
}

}  // namespace Tessel
