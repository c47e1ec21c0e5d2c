// The rows of a mask table as the server has them.
#include "tables/MaskTable.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

#include "base/Exception.h"
#include "tables/AddressKey.h"
#include "tables/AliasGraph.h"
#include "tables/Extension.h"
#include "tables/History.h"
#include "tables/Retry.h"
#include "tables/TableNames.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

namespace {

// Keys of one delete statement.
constexpr std::size_t s_deletedPerStatement = 500;

MaskRow s_row(std::string_view privateText, std::string_view publicText) {
  RowReader reader(TableKind::Mask);
  MaskRow row;
  row.privateText = privateText;
  row.publicText = publicText;
  row.fault = reader.read(privateText, publicText);
  if (row.fault != RowFault::None) row.why = reader.why();
  if (!reader.key().empty()) row.privateAddress = reader.keyAddress();
  if (!reader.values().empty()) row.publicAddress = reader.valueAddresses().front();
  return row;
}

Failure s_otherSpelling(const EmailAddress& address, const MaskRow& row, const std::string& table) {
  return {ExitCode::BadData, "private address " + address.address(),
          "table " + table + " has it in another spelling, in the row " + textOf({row}),
          "use the spelling of that row, or remove that row first"};
}

Failure s_taken(const EmailAddress& address, const MaskRow& row, const std::string& table) {
  const bool same = row.publicAddress == address;
  return {ExitCode::BadData, "public address " + address.address(),
          "table " + table + " has it already in the row " + textOf({row}) +
              (same ? "" : ", where it is spelled differently"),
          "take another public address, or remove that row first"};
}

}  // namespace

const char* textOf(MaskSide side) {
  return side == MaskSide::Public ? "public" : "private";
}

MaskSide otherSide(MaskSide side) {
  return side == MaskSide::Public ? MaskSide::Private : MaskSide::Public;
}

MaskTable::MaskTable(std::string table)
    : m_table(std::move(table)),
      m_connection(std::string(s_database)),
      m_private(m_connection, m_table, "private"),
      m_public(m_connection, m_table, "public") {}

std::vector<MaskRow> MaskTable::select(const std::string& condition) {
  std::vector<MaskRow> rows;
  selectPairs(m_connection, "select private, public from " + m_table + condition + ";",
              [&rows](std::string_view privateText, std::string_view publicText) {
                rows.push_back(s_row(privateText, publicText));
              });
  return rows;
}

std::vector<MaskRow> MaskTable::spelled(MaskSide side, const EmailAddress& address,
                                        const char* lock) {
  std::vector<MaskRow> found;
  SpellingSearch& spellings = side == MaskSide::Public ? m_public : m_private;
  for (const std::string& text : spellings.spellingsOf(address.address())) {
    std::string condition = std::string(" where ") + textOf(side) + "=" + literal(text) + lock;
    for (MaskRow& row : select(condition)) {
      if ((side == MaskSide::Public ? row.publicText : row.privateText) != text) continue;
      found.push_back(std::move(row));
    }
  }
  return found;
}

std::vector<MaskRow> MaskTable::wildcards() {
  std::vector<MaskRow> rows = select(" where private like '%*%' or public like '%*%'");
  std::erase_if(rows, [](const MaskRow& row) { return row.fault != RowFault::None; });
  return rows;
}

std::vector<MaskRow> MaskTable::plain(MaskSide side, const EmailAddress& address) {
  std::vector<MaskRow> rows = spelled(side, address);
  std::erase_if(rows, [](const MaskRow& row) {
    return (row.privateText + row.publicText).find('*') != std::string::npos;
  });
  if (rows.size() > 1) rows.resize(1);
  return rows;
}

std::optional<EmailAddress> MaskTable::served(MaskSide wanted, const EmailAddress& address,
                                              const std::vector<MaskRow>& wildcards) {
  for (const MaskRow& row : plain(otherSide(wanted), address)) {
    if (row.fault != RowFault::None) return std::nullopt;
    return row.address(wanted);
  }
  const ExtendedAddress cut = cutExtension(address.address(), s_delimiters);
  if (!cut.extension.empty()) {
    const EmailAddress base = EmailAddress::rfc5321Parse(cut.base, false);
    for (const MaskRow& row : plain(otherSide(wanted), base)) {
      if (row.fault != RowFault::None) return std::nullopt;
      return EmailAddress::rfc5321Parse(
          withExtension(row.address(wanted).address(), cut.extension, s_delimiters), false);
    }
  }
  const std::string key = comparisonDomain(address.domain());
  std::map<std::string, std::string> domains;  // Private to public, each by its last row.
  std::string domain;
  for (const MaskRow& row : wildcards) {
    domains[row.privateAddress.domain()] = row.publicAddress.domain();
    const bool isOf = comparisonDomain(row.privateAddress.domain()) == key;
    if (wanted == MaskSide::Public && isOf) domain = row.publicAddress.domain();
  }
  for (const auto& [privateDomain, publicDomain] : domains) {
    const bool isOf = domain.empty() && comparisonDomain(publicDomain) == key;
    if (wanted == MaskSide::Private && isOf) domain = privateDomain;
  }
  if (domain.empty()) return EmailAddress();
  try {
    return EmailAddress::create(address.local(), domain, false);
  } catch (const Exception&) {
    return EmailAddress();  // Too long in that domain.
  }
}

std::vector<MaskRow> MaskTable::rows(const std::string& domain, const char* lock) {
  std::vector<MaskRow> rows =
      select((domain.empty() ? "" : " where " + domainCondition("private", domain)) + lock);
  const std::string key = comparisonDomain(domain);
  std::erase_if(rows, [&](const MaskRow& row) { return !isOfDomain(row.privateText, key); });
  std::stable_sort(rows.begin(), rows.end(), [](const MaskRow& a, const MaskRow& b) {
    return a.privateAddress < b.privateAddress;
  });
  return rows;
}

std::optional<MaskRow> MaskTable::set(const EmailAddress& privateAddress,
                                      const EmailAddress& publicAddress, bool dryRun) {
  return retryLost([&] { return setOnce(privateAddress, publicAddress, dryRun); });
}

std::optional<MaskRow> MaskTable::setOnce(const EmailAddress& privateAddress,
                                          const EmailAddress& publicAddress, bool dryRun) {
  const std::string privateIs = " where private=" + literal(privateAddress.address());
  const std::string publicText = literal(publicAddress.address());
  RecordedChange change(m_connection);
  // Locked until the write, so that what was seen still holds then. Without a change, the right to
  // read is enough.
  const char* const lock = dryRun ? "" : " for update";
  const std::vector<MaskRow> present = select(privateIs + lock);
  for (const MaskRow& row : present) {
    if (!(row.privateAddress == privateAddress))
      throw s_otherSpelling(privateAddress, row, m_table);
  }
  for (const MaskRow& row : spelled(MaskSide::Private, privateAddress, lock)) {
    // With a collation that does not ignore letter case, that is another spelling, too.
    const bool isPresent = std::any_of(present.begin(), present.end(), [&row](const MaskRow& one) {
      return one.privateText == row.privateText;
    });
    if (!isPresent) throw s_otherSpelling(privateAddress, row, m_table);
  }
  for (const std::vector<MaskRow>& rows :
       {select(std::string(" where public=").append(publicText).append(lock)),
        spelled(MaskSide::Public, publicAddress, lock)}) {
    for (const MaskRow& row : rows) {
      if (!(row.privateAddress == privateAddress)) throw s_taken(publicAddress, row, m_table);
    }
  }
  auto before = present.empty() ? std::nullopt : std::optional(present.front());
  if (dryRun) return before;
  runStatement(m_connection,
               present.empty()
                   ? "insert into " + m_table + " ( private, public ) values( " +
                         literal(privateAddress.address()) + "," + publicText + " );"
                   : "update " + m_table + " set public=" + publicText + privateIs + ";");
  RowChange row{m_table, privateAddress.address(), std::nullopt, publicAddress.address()};
  if (before) {
    row.name = before->privateText;
    row.before = before->publicText;
  }
  change.note(std::move(row));
  change.commit();
  return before;
}

std::vector<MaskRow> MaskTable::force(const EmailAddress& privateAddress,
                                      const EmailAddress& publicAddress) {
  return retryLost([&] { return forceOnce(privateAddress, publicAddress); });
}

std::vector<MaskRow> MaskTable::forceOnce(const EmailAddress& privateAddress,
                                          const EmailAddress& publicAddress) {
  const std::string privateText = literal(privateAddress.address());
  const std::string publicText = literal(publicAddress.address());
  const std::string either = " where private=" + privateText + " or public=" + publicText;
  RecordedChange change(m_connection);
  std::map<std::string, std::string> before;
  for (const MaskRow& row : select(either + " for update"))
    before[row.privateText] = row.publicText;
  try {
    runStatement(m_connection, "insert into " + m_table + " ( private, public ) values( " +
                                   privateText + "," + publicText +
                                   " ) on duplicate key update public=values( public );");
  } catch (const Exception& exception) {
    if (!isDatabaseError(exception, s_duplicateEntry)) throw;
    throw Failure(
        ExitCode::BadData, "mask " + privateAddress.address(),
        "table " + m_table + " has the two addresses in two rows: " + textOf(select(either)),
        "nothing was changed; remove the row that has the public address first");
  }
  std::vector<MaskRow> rows = select(either);
  for (const MaskRow& row : rows) {
    const auto former = before.find(row.privateText);
    change.note({m_table, row.privateText,
                 former == before.end() ? std::nullopt : std::optional(former->second),
                 row.publicText});
  }
  change.commit();
  return rows;
}

bool MaskTable::remove(const EmailAddress& privateAddress, const EmailAddress& publicAddress,
                       bool dryRun) {
  return retryLost([&] { return removeOnce(privateAddress, publicAddress, dryRun); });
}

bool MaskTable::removeOnce(const EmailAddress& privateAddress, const EmailAddress& publicAddress,
                           bool dryRun) {
  RecordedChange change(m_connection);
  const std::string key = comparisonKey(publicAddress.address());
  bool present = false;
  for (const MaskRow& row :
       spelled(MaskSide::Private, privateAddress, dryRun ? "" : " for update")) {
    if (row.publicAddress.isNull() || comparisonKey(row.publicAddress.address()) != key) continue;
    present = true;
    if (dryRun) continue;
    change.note({m_table, row.privateText, row.publicText, std::nullopt});
    runStatement(m_connection,
                 "delete from " + m_table + " where private=" + literal(row.privateText) + ";");
  }
  change.commit();
  return present;
}

std::size_t MaskTable::removeDomain(const std::string& domain) {
  return retryLost([&] { return removeDomainOnce(domain); });
}

std::size_t MaskTable::removeDomainOnce(const std::string& domain) {
  RecordedChange change(m_connection);
  const std::vector<MaskRow> doomed = rows(domain, " for update");
  for (std::size_t first = 0; first < doomed.size(); first += s_deletedPerStatement) {
    std::string keys;
    const std::size_t end = std::min(doomed.size(), first + s_deletedPerStatement);
    for (std::size_t i = first; i < end; ++i) {
      change.note({m_table, doomed[i].privateText, doomed[i].publicText, std::nullopt});
      keys += (keys.empty() ? "" : ",") + literal(doomed[i].privateText);
    }
    runStatement(m_connection, "delete from " + m_table + " where private in( " + keys + " );");
  }
  change.commit();
  return doomed.size();
}

std::string textOf(const std::vector<MaskRow>& rows) {
  std::string text;
  for (const MaskRow& row : rows) {
    if (!text.empty()) text += ", ";
    text.append("'").append(row.privateText).append(":").append(row.publicText).append("'");
  }
  return text;
}

}  // namespace Tessel::Tool
