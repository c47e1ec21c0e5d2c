// Fuzz target of rows as the database returns them: whatever the columns hold, each row gives what
// its first two texts say up to their NULs, an empty one gives null and one message, and the first
// that is malformed ends the reading. See RowInput.h for the input.
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "alias/AddressAliasDbMySQL.h"
#include "alias/AddressAliasRow.h"
#include "base/Logger.h"
#include "database/RowContainer.h"
#include "database/db_result.h"
#include "fuzz/Fuzz.h"
#include "fuzz/RowInput.h"
#include "map/TsRowParser.h"
#include "mask/AddressMaskRow.h"

using Tessel::AdapterAliasRowToEntryContainer;
using Tessel::AdapterMaskRowToEntryContainer;
using Tessel::AdapterMaskRowToWildCardContainer;
using Tessel::AddressAliasDbMySQL;
using Tessel::AddressAliasRow;
using Tessel::EmailAddress;
using Tessel::Logger;
using Tessel::Database::AddressMaskRow;
using Tessel::Database::RowContainer;
using Tessel::Database::TsRowParser;
using Tessel::Database::TsRowStream;
using Tessel::Fuzz::asText;
using Tessel::Fuzz::Cells;
using Tessel::Fuzz::outcomeOf;
using Tessel::Fuzz::require;
using Tessel::Fuzz::rowsOf;
using Tessel::Fuzz::StoredResult;

namespace {

// What two columns mean, as texts.
using Pair = std::pair<std::string, std::string>;

// What came of a result: its rows, how the reading ended, and how many messages it logged.
struct Reading {
  std::vector<Pair> rows;
  std::string refusal;
  std::size_t messages = 0;
  bool operator==(const Reading&) const = default;
};

Pair s_aliasPair(const EmailAddress& alias, const std::set<EmailAddress>& members) {
  std::ostringstream text;
  AddressAliasDbMySQL::writeMemberSet(members, text);
  return {alias.address(), text.str()};
}

// The two kinds of row: what the texts of the columns should give, and what a row holds.
struct Alias {
  using Row = AddressAliasRow;
  static constexpr unsigned int messageCode = 0x300002b;
  static Pair parse(const char* name, const char* members) {
    const EmailAddress alias = EmailAddress::rfc5321Parse(name, false);
    return s_aliasPair(alias, EmailAddress::rfc5322ParseSet(members, true, false));
  }
  static Pair pairOf(const Row& row) { return s_aliasPair(row.alias(), row.members()); }
};

struct Mask {
  using Row = AddressMaskRow;
  static constexpr unsigned int messageCode = 0x300002a;
  static Pair parse(const char* privateText, const char* publicText) {
    const EmailAddress privateAddress = EmailAddress::rfc5321Parse(privateText, false);
    return {privateAddress.address(), EmailAddress::rfc5321Parse(publicText, false).address()};
  }
  static Pair pairOf(const Row& row) {
    return {row.privateAddress().address(), row.publicAddress().address()};
  }
};

bool s_isEmpty(const Cells& row, std::size_t column) {
  return column >= row.size() || !row[column] || row[column]->empty();
}

template <class Kind>
Reading s_expected(const std::vector<Cells>& rows) {
  Reading expected;
  for (const Cells& row : rows) {
    if (s_isEmpty(row, 0) || s_isEmpty(row, 1)) {
      expected.rows.emplace_back();
      ++expected.messages;
      continue;
    }
    const auto pair = outcomeOf([&] { return Kind::parse(row[0]->c_str(), row[1]->c_str()); });
    expected.refusal = pair.refusal;
    if (!pair.value) break;
    expected.rows.push_back(*pair.value);
  }
  return expected;
}

// Runs `read`, which adds to the rows of the reading.
template <class Kind, class Read>
Reading s_readingOf(const Read& read) {
  Reading reading;
  Logger::Capture log;
  reading.refusal = outcomeOf([&] {
                      read(reading.rows);
                      return true;
                    }).refusal;
  for (const Logger::Message& message : log.take()) {
    require(message.code == Kind::messageCode && message.number == 0 && message.text == " ",
            "the one message there is", message.text);
    ++reading.messages;
  }
  return reading;
}

template <class Kind>
RowContainer s_checkRows(const std::vector<Cells>& rows, StoredResult& stored) {
  using Row = typename Kind::Row;
  const Reading expected = s_expected<Kind>(rows);
  RowContainer container;
  const Reading kept = s_readingOf<Kind>(
      [&](auto&) { TsRowParser<Row>(container).parse(nullptr, stored.result()); });
  Reading got{{}, kept.refusal, kept.messages};
  for (const auto& row : container.rows()) {
    got.rows.push_back(Kind::pairOf(static_cast<const Row&>(**row)));
  }
  require(got == expected, "each row gives what its texts say", got.refusal);

  const Reading streamed = s_readingOf<Kind>([&](std::vector<Pair>& taken) {
    const auto take = [&taken](const Row& row) { taken.push_back(Kind::pairOf(row)); };
    TsRowStream<Row, decltype(take)>(take).parse(nullptr, stored.result());
  });
  require(streamed == expected, "rows in a stream are the same", streamed.refusal);
  return container;
}

// The last row of an address wins. `put` puts a row into entries.
template <class Adapter, class Entries, class Put>
void s_checkAdapter(const RowContainer& container, const Put& put) {
  Entries entries;
  const Adapter adapter(entries);
  Entries expected;
  for (const auto& row : container.rows()) {
    adapter(row);
    put(**row, expected);
  }
  require(entries == expected, "entries are those of the rows");
}

// Cells in an order that jumps, with the columns and rows that are not there.
void s_checkCells(const std::vector<Cells>& rows, StoredResult& stored) {
  void* const result = stored.result();
  const auto count = static_cast<std::int64_t>(rows.size());
  require(db_result_row_num(result) == count, "number of rows");
  require(db_result_column_num(result) == rows.front().size(), "number of columns");
  require(db_result_fetch_row(result, -1) == nullptr, "no row before the first");
  require(db_result_fetch_row(result, count) == nullptr, "no row behind the last");
  for (std::int64_t step = 0; step < count; ++step) {
    // From both ends to the middle.
    const std::int64_t index = step % 2 == 0 ? step / 2 : count - 1 - step / 2;
    const Cells& cells = rows[static_cast<std::size_t>(index)];
    void* const row = db_result_fetch_row(result, index);
    require(row != nullptr, "a row that is there");
    for (unsigned int column = 0; column <= cells.size(); ++column) {
      const bool isThere = column < cells.size() && cells[column];
      const std::string wanted = isThere ? *cells[column] : "";
      const std::size_t length = db_result_field_length(result, column);
      const char* const value = db_result_get_value(nullptr, result, row, column);
      require(length == wanted.size(), "length of a column", wanted);
      require(std::string(value, length) == wanted && value[length] == '\0', "value of a column",
              wanted);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<Cells> rows = rowsOf(asText(data, size));
  if (rows.empty()) return 0;
  StoredResult stored(rows);
  s_checkCells(rows, stored);

  const RowContainer aliases = s_checkRows<Alias>(rows, stored);
  s_checkAdapter<AdapterAliasRowToEntryContainer, std::map<EmailAddress, std::set<EmailAddress>>>(
      aliases, [](const auto& body, auto& entries) {
        const auto& row = static_cast<const AddressAliasRow&>(body);
        entries[row.alias()] = row.members();
      });

  const RowContainer masks = s_checkRows<Mask>(rows, stored);
  s_checkAdapter<AdapterMaskRowToEntryContainer, std::map<EmailAddress, EmailAddress>>(
      masks, [](const auto& body, auto& entries) {
        const auto& row = static_cast<const AddressMaskRow&>(body);
        entries[row.privateAddress()] = row.publicAddress();
      });
  s_checkAdapter<AdapterMaskRowToWildCardContainer, std::map<std::string, std::string>>(
      masks, [](const auto& body, auto& entries) {
        const auto& row = static_cast<const AddressMaskRow&>(body);
        entries[row.privateAddress().domain()] = row.publicAddress().domain();
      });
  return 0;
}
