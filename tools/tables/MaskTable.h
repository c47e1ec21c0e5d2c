// The rows of a mask table as the server has them, for what the library's answers leave open, and
// the safe writes: they escape their texts, change no other row than their own, and are recorded.
#ifndef TSL_TOOLS_TABLES_MASKTABLE_H
#define TSL_TOOLS_TABLES_MASKTABLE_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "address/EmailAddress.h"
#include "database/Connection.h"
#include "failure/Failure.h"
#include "tables/RowReader.h"
#include "tables/SpellingSearch.h"

namespace Tessel::Tool {

enum class MaskSide { Private, Public };

// "private" or "public": what people and the table call the side.
const char* textOf(MaskSide side);
MaskSide otherSide(MaskSide side);

// One row, read without throwing.
struct MaskRow {
  std::string privateText;  // As they are in the table.
  std::string publicText;
  EmailAddress privateAddress;  // Null where the text is no e-mail address.
  EmailAddress publicAddress;
  RowFault fault = RowFault::None;
  std::string why;  // The fault in words.

  [[nodiscard]] const EmailAddress& address(MaskSide side) const {
    return side == MaskSide::Public ? publicAddress : privateAddress;
  }
};

// A mask table over a connection of its own. Failures of the database pass as Exception. One
// thread.
class MaskTable {
 public:
  // `table` is the SQL name, which must be known to be safe.
  explicit MaskTable(std::string table);

  // The rows whose address on `side` is `address` in any spelling (see AddressKey.h). `lock` is the
  // end of the statement.
  std::vector<MaskRow> spelled(MaskSide side, const EmailAddress& address, const char* lock = "");

  // The rows with a "*" in either address that are not broken, in the order of the server.
  std::vector<MaskRow> wildcards();

  // The `wanted` address for `address` as the lookup service finds it with its usual options, if
  // the wildcard rows are `wildcards`: by the row of any spelling, that of the address without its
  // tag, or a wildcard row. Null for none; nothing when the row cannot be read.
  std::optional<EmailAddress> served(MaskSide wanted, const EmailAddress& address,
                                     const std::vector<MaskRow>& wildcards);

  // All rows, or those whose private address is of `domain` in any spelling where it is not empty.
  // In the order of private addresses, rows without a readable one first. `lock` as above.
  std::vector<MaskRow> rows(const std::string& domain, const char* lock = "");

  // Adds the pair, or changes the public address of the row of its private one. Throws Failure,
  // `BadData`, when another row has the public address, or one of the two in another spelling, or
  // one that the server considers equal.
  // With `dryRun` nothing is written. The row of the private address as it was, if there was one.
  std::optional<MaskRow> set(const EmailAddress& privateAddress, const EmailAddress& publicAddress,
                             bool dryRun);

  // Adds the pair as the library does: a row that has either address gets the public one. Returns
  // the rows that have either then. Throws Failure, `BadData`, when two rows have one each.
  std::vector<MaskRow> force(const EmailAddress& privateAddress, const EmailAddress& publicAddress);

  // Removes the row of this pair, in any spelling. False when there is none. With `dryRun` nothing
  // is written.
  bool remove(const EmailAddress& privateAddress, const EmailAddress& publicAddress, bool dryRun);

  // Removes what rows() returns for `domain`, which must not be empty. The number of rows.
  std::size_t removeDomain(const std::string& domain);

 private:
  std::optional<MaskRow> setOnce(const EmailAddress& privateAddress,
                                 const EmailAddress& publicAddress, bool dryRun);
  bool removeOnce(const EmailAddress& privateAddress, const EmailAddress& publicAddress,
                  bool dryRun);
  std::size_t removeDomainOnce(const std::string& domain);
  std::vector<MaskRow> select(const std::string& condition);
  std::vector<MaskRow> forceOnce(const EmailAddress& privateAddress,
                                 const EmailAddress& publicAddress);
  // The first of spelled() that is not a wildcard row; none when there is none.
  std::vector<MaskRow> plain(MaskSide side, const EmailAddress& address);

  std::string m_table;
  Database::Connection m_connection;
  SpellingSearch m_private;
  SpellingSearch m_public;
};

// The rows as they are in the table: "'PRIVATE:PUBLIC', 'PRIVATE:PUBLIC'".
std::string textOf(const std::vector<MaskRow>& rows);

}  // namespace Tessel::Tool

#endif
