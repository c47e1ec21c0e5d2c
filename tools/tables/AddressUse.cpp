// The rows of tables that lead to an address.
#include "tables/AddressUse.h"

#include "tables/AddressKey.h"
#include "tables/Extension.h"
#include "tables/RowReader.h"
#include "tables/SpellingSearch.h"
#include "tables/TableFormat.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

bool leadsTo(std::string_view text, const std::string& key) {
  if (comparisonKey(text) == key) return true;
  const std::string base = withoutExtension(text);
  return !base.empty() && comparisonKey(base) == key;
}

std::vector<AddressUse> usesOf(std::string_view address, Database::Connection& connection,
                               const std::string& table, TableKind kind) {
  const TableFormat& format = kind == TableKind::Alias ? TableFormat::alias() : TableFormat::mask();
  const std::string key = comparisonKey(address);
  RowReader reader(kind);
  std::vector<AddressUse> uses;
  const auto take = [&](std::string_view rowKey, std::string_view value) {
    if (reader.read(rowKey, value) != RowFault::None) return;
    if (format.hasPublic) {
      if (leadsTo(reader.key(), key)) uses.push_back({std::string(rowKey), std::string(value)});
      return;
    }
    for (const std::string_view member : reader.values()) {
      if (leadsTo(member, key)) uses.push_back({std::string(rowKey), std::string(member)});
    }
  };
  selectPairs(connection,
              std::string("select ") + format.key + ", " + format.value + " from " +
                  quotedName(table) + " order by " + format.key + ";",
              take);
  return uses;
}

std::size_t rowsOfDomain(const std::string& domain, Database::Connection& connection,
                         const std::string& table, TableKind kind) {
  const TableFormat& format = kind == TableKind::Alias ? TableFormat::alias() : TableFormat::mask();
  const std::string key = comparisonDomain(domain);
  std::string condition = domainCondition(format.key, domain);
  if (format.hasPublic) condition += " or " + domainCondition(format.value, domain);
  std::size_t count = 0;
  selectPairs(connection,
              std::string("select ") + format.key + ", " + format.value + " from " +
                  quotedName(table) + " where " + condition + ";",
              [&](std::string_view rowKey, std::string_view value) {
                if (isOfDomain(rowKey, key) || (format.hasPublic && isOfDomain(value, key)))
                  ++count;
              });
  return count;
}

}  // namespace Tessel::Tool
