// One address-mask table in MariaDB/MySQL: statements, lookups and the file format.
#include "mask/AddressMaskMySQL.h"

#include <algorithm>
#include <fstream>
#include <list>
#include <optional>
#include <ostream>
#include <utility>

#include "base/Exception.h"
#include "database/Query.h"
#include "map/AddressMapMySQL.h"
#include "map/ColonLines.h"
#include "map/TsRowParser.h"
#include "mask/AddressMaskRow.h"

namespace Tessel {

namespace {

constexpr unsigned int s_cacheCapacity = 1024;

using Rows = std::list<Ref<Database::RowImpl>>;

const Database::AddressMaskRow& s_maskRow(const Ref<Database::RowImpl>& row) {
  return static_cast<const Database::AddressMaskRow&>(**row);
}

}  // namespace

AddressMaskDbMySQL::AddressMaskDbMySQL(AddressMapDbMySQL& mapDb, bool preload,
                                       const std::string& name)
    : m_mapDb(mapDb), m_mutex(&mapDb.mutex()), m_table(s_mask), m_cache(s_cacheCapacity) {
  if (!name.empty()) m_table += "_" + name;
  if (!preload) return;
  queryEntries(m_cache);
  queryWildCards();
}

AddressMaskDbMySQL::~AddressMaskDbMySQL() = default;

void AddressMaskDbMySQL::execute(Database::Query& query) const {
  query.execute();
}

// Runs the statement that `writeStatement` writes and hands its rows to `consume`, under the mutex.
template <class WriteStatement, class Consume>
void AddressMaskDbMySQL::select(WriteStatement writeStatement, Consume consume) const {
  Database::RowContainer rows;
  Database::TsRowParser<Database::AddressMaskRow> parser(rows);
  Database::Query query(m_mapDb.connection(), &parser, true);
  const Synchronized lock(*m_mutex);
  writeStatement(query);
  execute(query);
  consume(rows.rows());
}

// What `look` finds in the cache, otherwise what `lookBehind` finds: it learns whether the cache
// held every plain row, so that the table need not be asked.
template <class Look, class LookBehind>
EmailAddress AddressMaskDbMySQL::lookInCache(Look look, LookBehind lookBehind) const {
  while (true) {
    const std::uint64_t changes = m_cache.changes();
    if (auto cached = look()) return *std::move(cached);
    const bool complete = m_cache.size() >= m_entries;
    // What completed the cache may be this very pair, cached by another thread behind the look.
    if (!complete || m_cache.changes() == changes) return lookBehind(complete);
  }
}

EmailAddress AddressMaskDbMySQL::findPublicAddress(const EmailAddress& address) const {
  try {
    return findPublic(address);
  } catch (const Exception& exception) {
    throw Exception("findPublicAddress", 4, "AddressMaskMySQL", 100).cause(exception);
  }
}

EmailAddress AddressMaskDbMySQL::findPublic(const EmailAddress& address) const {
  // An empty cache misses as well: asking for its size first would cost a lock more.
  return lookInCache([&] { return m_cache.copyOf(address); },
                     [&](bool complete) { return findPublicBehind(address, complete); });
}

EmailAddress AddressMaskDbMySQL::findPublicBehind(const EmailAddress& address,
                                                  bool complete) const {
  if (!complete) {
    const Synchronized lock(*m_mutex);
    EmailAddress found = queryPublicAddress(address);
    if (!found.isNull()) {
      m_cache.add(address, found);
      return found;
    }
  }
  const auto wildCard = m_wildCards.find(address.domain());
  if (wildCard == m_wildCards.end()) return noAddress();
  return EmailAddress::create(address.local(), wildCard->second, true);
}

EmailAddress AddressMaskDbMySQL::findPrivateAddress(const EmailAddress& address) const {
  try {
    return findPrivate(address);
  } catch (const Exception& exception) {
    // Deliberate: the labels are swapped; log watchers read them so.
    throw Exception("findPrivateAddress", 4, "AddressMaskMySQL", 162)
        .cause(exception)
        .stringParameter("m_entries = " + std::to_string(m_cache.size()) +
                         " / cached=" + std::to_string(m_entries));
  }
}

EmailAddress AddressMaskDbMySQL::findPrivate(const EmailAddress& address) const {
  return lookInCache([&] { return m_cache.keyOf(address); },
                     [&](bool complete) { return findPrivateBehind(address, complete); });
}

EmailAddress AddressMaskDbMySQL::findPrivateBehind(const EmailAddress& address,
                                                   bool complete) const {
  if (!complete) {
    const Synchronized lock(*m_mutex);
    EmailAddress found = queryPrivateAddress(address);
    if (!found.isNull()) {
      m_cache.add(found, address);
      return found;
    }
  }
  const std::string domain = address.domain();
  const auto wildCard = std::find_if(m_wildCards.begin(), m_wildCards.end(),
                                     [&](const auto& pair) { return pair.second == domain; });
  if (wildCard == m_wildCards.end()) return noAddress();
  return EmailAddress::create(address.local(), wildCard->first, true);
}

void AddressMaskDbMySQL::findByMaskedDomain(const std::string& domain, Entries& entries) const {
  select(
      [&](std::ostream& query) {
        query << "select * from " << m_table;
        if (domain != "*") query << " where private like '%@" << domain << "'";
        query << ";";
      },
      [&entries](const Rows& rows) {
        std::for_each(rows.begin(), rows.end(), AdapterMaskRowToEntryContainer(entries));
      });
}

void AddressMaskDbMySQL::exportToFile(const std::string& path) {
  // Deliberate: the scratch cache keeps nothing, so the file comes out empty and the lasting effect
  // is the refreshed row count.
  Cache rows(0);
  queryEntries(rows);
  std::ofstream file(path, std::ios::out | std::ios::trunc);
  if (!file.is_open()) {
    // Deliberate: the context names the alias table.
    throw Exception("AddressAliasMaskDb::exportToFile", 4, "AddressMaskMySQL", 425)
        .stringParameter("Could not open file");
  }
  for (auto entry = rows.begin(); entry != rows.end(); ++entry) {
    file << entry->first << ":" << entry->second
         << std::endl;  // NOLINT(performance-avoid-endl): each line reaches the file whole
  }
}

void AddressMaskDbMySQL::importFromFile(const std::string& path) {
  std::ifstream file(path, std::ios::in);
  if (!file.is_open()) {
    throw Exception("AddressMaskDb::importFromFile", 4, "AddressMaskMySQL", 439)
        .stringParameter("Could not open file");
  }
  forEachColonLine(file, [this](std::string_view privateText, std::string_view publicText) {
    const EmailAddress privateAddress = EmailAddress::rfc5321Parse(privateText, false);
    queryAdd(privateAddress, EmailAddress::rfc5321Parse(publicText, false));
  });
}

EmailAddress AddressMaskDbMySQL::queryPublicAddress(const EmailAddress& privateAddress) const {
  EmailAddress found;
  select(
      [&](std::ostream& query) {
        query << "select * from " << m_table << " where private ='"
              << emailAddressEscapedWrite(privateAddress) << "';";
      },
      [&found](const Rows& rows) {
        if (!rows.empty()) found = s_maskRow(rows.front()).publicAddress();
      });
  return found;
}

EmailAddress AddressMaskDbMySQL::queryPrivateAddress(const EmailAddress& publicAddress) const {
  EmailAddress found;
  select(
      [&](std::ostream& query) {
        query << "select * from " << m_table << " where public ='"
              << emailAddressEscapedWrite(publicAddress) << "';";
      },
      [&found](const Rows& rows) {
        if (!rows.empty()) found = s_maskRow(rows.front()).privateAddress();
      });
  return found;
}

void AddressMaskDbMySQL::queryAdd(const EmailAddress& privateAddress,
                                  const EmailAddress& publicAddress) {
  Database::Query query(m_mapDb.connection(), nullptr, true);
  const Synchronized lock(*m_mutex);
  query << "insert into " << m_table << " (private, public ) values( '" << privateAddress.address()
        << "','" << publicAddress.address() << "' ) "
        << "on duplicate key update public=values( public );";
  execute(query);
}

void AddressMaskDbMySQL::queryDelete(const EmailAddress& privateAddress,
                                     const EmailAddress& publicAddress) {
  Database::Query query(m_mapDb.connection(), nullptr, true);
  const Synchronized lock(*m_mutex);
  query << "delete from " << m_table << " where private='" << privateAddress.address()
        << "' and public='" << publicAddress.address() << "';";
  execute(query);
}

void AddressMaskDbMySQL::queryDelete(const std::string& domain) {
  Database::Query query(m_mapDb.connection(), nullptr, true);
  const Synchronized lock(*m_mutex);
  query << "delete from " << m_table << " where private like '%@" << domain << "';";
  execute(query);
}

void AddressMaskDbMySQL::queryEntries(Cache& cache) {
  try {
    select(
        [this](std::ostream& query) {
          query << "select * from " << m_table << " where private not like '%*%';";
        },
        [this, &cache](const Rows& rows) {
          for (const auto& row : rows) {
            if (cache.size() > s_cacheCapacity - 1) break;
            cache.add(s_maskRow(row).privateAddress(), s_maskRow(row).publicAddress());
          }
          m_entries = static_cast<std::uint32_t>(rows.size());
        });
  } catch (const Exception& exception) {
    throw Exception("queryEntries ", 4, "AddressMaskMySQL", 218)
        .cause(exception)
        .stringParameter("Error reading " + m_table);
  }
}

void AddressMaskDbMySQL::queryWildCards() {
  select(
      [this](std::ostream& query) {
        query << "select * from " << m_table << " where private like '%*%' or public like '%*%';";
      },
      [this](const Rows& rows) {
        std::for_each(rows.begin(), rows.end(), AdapterMaskRowToWildCardContainer(m_wildCards));
      });
}

}  // namespace Tessel
