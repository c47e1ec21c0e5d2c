// One alias table in MariaDB/MySQL: statements, expansion and the file format.
#include "alias/AddressAliasDbMySQL.h"

#include <algorithm>
#include <fstream>
#include <ostream>
#include <string_view>
#include <utility>

#include "alias/AddressAliasRow.h"
#include "alias/AliasExpander.h"
#include "base/Exception.h"
#include "base/stringCompareNoCase.h"
#include "cmf/ApsGwServerCache.h"
#include "cmf/MailUser.h"
#include "cmf/TableQuery.h"
#include "database/Query.h"
#include "map/AddressMapMySQL.h"
#include "map/ColonLines.h"
#include "map/TsRowParser.h"

namespace Tessel {

namespace {

constexpr unsigned int s_cacheCapacity = 256;
// A cache of this capacity keeps nothing.
constexpr unsigned int s_keepsNothing = 0;

// Hands the names of the user mailboxes that the configuration lists for `domain` to `take`; false
// when it does not know the domain.
template <class Take>
bool s_listUsers(const std::string& domain, Take take) {
  const CMF::RefApsGwServerCache cache = CMF::RefApsGwServerCache::instance(false);
  const CMF::RefApsGwServer server = cache->find(domain);
  if (server.isNull()) return false;
  const CMF::TableQuery<__aps_mail_user, CMF::s_mailUserTable> query(server->domainId());
  for (const __aps_mail_user& record : query) {
    if (record.kind == CMF::MailUserMailbox) take(record.user_name);
  }
  return true;
}

// `members`, or the user mailboxes that `listUsers` lists for the domain of `alias` when the only
// member is the all-users marker of that very domain.
template <class List>
std::set<EmailAddress> s_withAllUsers(const EmailAddress& alias,
                                      const std::set<EmailAddress>& members,
                                      const List& listUsers) {
  if (members.size() != 1 || members.begin()->isNull()) return members;
  const std::string domain = alias.domain();
  if (!stringCompareNoCase(members.begin()->address(), "allusers_" + domain, 0)) return members;
  try {
    std::set<EmailAddress> users;
    std::string text;
    const bool isKnown = listUsers(domain, [&](std::string_view name) {
      text.assign(name).append("@").append(domain);
      EmailAddress user = EmailAddress::rfc5322Parse(text, true);
      // Users come in the order of the set.
      if (!user.isNull()) users.insert(users.end(), std::move(user));
    });
    return isKnown ? users : members;
  } catch (const Exception&) {
    // Deliberate: the marker itself is delivered to when the configuration cannot be read. Pinned
    // by AllUsersExpansion.AnUnreadableConfigurationLeavesTheMarker.
    return members;
  }
}

std::set<EmailAddress> expandAllUsers(const EmailAddress& alias,
                                      const std::set<EmailAddress>& members) {
  return s_withAllUsers(alias, members, [](const std::string& domain, const auto& take) {
    return s_listUsers(domain, take);
  });
}

}  // namespace

AddressAliasDbMySQL::AddressAliasDbMySQL(AddressMapDbMySQL& mapDb, bool preload,
                                         const std::string& name)
    : m_mapDb(mapDb), m_mutex(&mapDb.mutex()), m_table(s_alias), m_cache(s_cacheCapacity) {
  if (!name.empty()) m_table += "_" + name;
  if (!preload) return;
  // Deliberate: the rows go into a cache that keeps nothing, so preloading counts them and leaves
  // the cache empty. Pinned by
  // AddressAliasDbMySQLOnServer.PreloadCountsTheRowsAndCachesNothing.
  Cache rows(s_keepsNothing);
  queryEntries(rows);
  std::for_each(rows.begin(), rows.end(), CacheLoader(rows, m_cache));
}

AddressAliasDbMySQL::~AddressAliasDbMySQL() = default;

void AddressAliasDbMySQL::execute(Database::Query& query) const {
  query.execute();
}

// Runs the statement that `writeStatement` writes and hands its rows to `consume`, under the mutex.
template <class WriteStatement, class Consume>
void AddressAliasDbMySQL::select(WriteStatement writeStatement, Consume consume) const {
  Database::RowContainer rows;
  Database::TsRowParser<AddressAliasRow> parser(rows);
  Database::Query query(m_mapDb.connection(), &parser, true);
  const Synchronized lock(*m_mutex);
  writeStatement(query);
  execute(query);
  consume(rows.rows());
}

std::set<EmailAddress> AddressAliasDbMySQL::expandAlias(const EmailAddress& address) const {
  try {
    while (true) {
      const std::uint64_t changes = m_cache.changes();
      if (auto cached = expandCached(address)) return *std::move(cached);
      if (!isEveryAliasCached()) return expandUncached(address, changes);
      // What completed the cache may be this very alias, cached by another thread behind the look.
      if (m_cache.changes() == changes) return noAddresses();
    }
  } catch (const Exception& exception) {
    throw Exception("expandAlias ", 4, "AddressAliasDbMySQL", 311).cause(exception);
  }
}

// What the cache says about `address`, if anything.
std::optional<std::set<EmailAddress>> AddressAliasDbMySQL::expandCached(
    const EmailAddress& address) const {
  std::optional<Members> cached = m_cache.copyOf(address);
  // Only a set of one can be the marker: larger ones are not copied again.
  if (!cached || cached->size() != 1) return cached;
  return expandAllUsers(address, *cached);
}

// `changes` is the cache's number from before the look into it.
std::set<EmailAddress> AddressAliasDbMySQL::expandUncached(const EmailAddress& address,
                                                           std::uint64_t changes) const {
  const Synchronized lock(*m_mutex);
  // Only a holder of the mutex adds to the cache: from here on it does not change.
  std::set<EmailAddress> result;
  std::set<EmailAddress> visited;
  AliasExpander{this, &address, &result, &visited}.expand(address);
  // Nothing is asked once every alias is cached, which another thread may have brought about while
  // this one waited for the mutex, by caching this very alias.
  if (result.empty() && m_cache.changes() == changes) return noAddresses();
  if (!result.empty()) m_cache.add(address, result);
  return expandCached(address).value_or(noAddresses());
}

std::set<EmailAddress> AddressAliasDbMySQL::withAllUsers(const EmailAddress& alias,
                                                         const Members& members) {
  return expandAllUsers(alias, members);
}

std::set<EmailAddress> AddressAliasDbMySQL::withAllUsers(const EmailAddress& alias,
                                                         const Members& members,
                                                         const ListUsers& listUsers) {
  return s_withAllUsers(alias, members, listUsers);
}

void AddressAliasDbMySQL::getAliasNames(std::set<EmailAddress>& names) const {
  select([this](std::ostream& query) { query << "select name, members from " << m_table << ";"; },
         [&names](const auto& rows) {
           for (const auto& row : rows) {
             names.insert(static_cast<const AddressAliasRow&>(**row).alias());
           }
         });
}

void AddressAliasDbMySQL::exportToFile(const std::string& path) {
  // Deliberate: the scratch cache keeps nothing, so the file comes out empty and the lasting effect
  // is the refreshed row count. Pinned by
  // AddressAliasFiles.ExportLeavesAnEmptyFileAndCountsTheRows.
  Cache rows(s_keepsNothing);
  queryEntries(rows);
  std::ofstream file(path, std::ios::out | std::ios::trunc);
  if (!file.is_open()) {
    throw Exception("AddressAliasDb::exportToFile", 4, "AddressAliasDbMySQL", 587)
        .stringParameter("Could not open file");
  }
  for (auto entry = rows.begin(); entry != rows.end(); ++entry) {
    file << entry->first << ":";
    writeMemberSet(entry->second, file);
    file << std::endl;  // NOLINT(performance-avoid-endl): each line reaches the file whole
  }
}

void AddressAliasDbMySQL::importFromFile(const std::string& path) {
  std::ifstream file(path, std::ios::in);
  if (!file.is_open()) {
    throw Exception("AddressAliasDb::importFromFile", 4, "AddressAliasDbMySQL", 601)
        .stringParameter("Could not open file");
  }
  forEachColonLine(file, [this](std::string_view aliasText, std::string_view membersText) {
    // First the alias: of two bad texts it is the one that is reported.
    const EmailAddress alias = EmailAddress::rfc5322Parse(aliasText, true);
    queryAdd(alias, EmailAddress::rfc5322ParseSet(membersText, true, false));
  });
}

void AddressAliasDbMySQL::queryFindByDomain(const std::string& domain, Entries& entries) const {
  select(
      [&](std::ostream& query) {
        query << "select * from " << m_table;
        if (domain != "*") query << " where name like '%@" << domain << "'";
        query << ";";
      },
      [&entries](const auto& rows) {
        std::for_each(rows.begin(), rows.end(), AdapterAliasRowToEntryContainer(entries));
      });
}

void AddressAliasDbMySQL::queryFindByMemberUser(const EmailAddress& member,
                                                Entries& entries) const {
  select(
      [&](std::ostream& query) {
        query << "select * from " << m_table << " where members like '%"
              << emailAddressEscapedWrite(member) << "%';";
      },
      [&entries](const auto& rows) {
        std::for_each(rows.begin(), rows.end(), AdapterAliasRowToEntryContainer(entries));
      });
}

void AddressAliasDbMySQL::queryFindMembers(const EmailAddress& alias, Members& members) const {
  Database::RowContainer rows;
  Database::TsRowParser<AddressAliasRow> parser(rows);
  // Here the mutex comes before the query: expansion calls this with the mutex held already.
  const Synchronized lock(*m_mutex);
  Database::Query query(m_mapDb.connection(), &parser, true);
  query << "select * from " << m_table << " where name='" << emailAddressEscapedWrite(alias)
        << "';";
  execute(query);
  for (const auto& row : rows.rows()) {
    const auto& aliasRow = static_cast<const AddressAliasRow&>(**row);
    // The collation of the table may find more than EmailAddress calls equal.
    if (!(aliasRow.alias() == alias)) continue;
    members = aliasRow.members();
    return;
  }
}

void AddressAliasDbMySQL::queryEntries(Cache& cache) {
  if (cache.capacity() == 0) return streamEntries(cache);
  select([this](std::ostream& query) { query << "select * from " << m_table << ";"; },
         [this, &cache](const auto& rows) {
           for (const auto& row : rows) {
             const auto& aliasRow = static_cast<const AddressAliasRow&>(**row);
             cache.add(aliasRow.alias(), aliasRow.members());
           }
           m_entries = static_cast<std::uint32_t>(rows.size());
         });
}

// As `queryEntries`, for a cache that keeps nothing: neither are the rows kept then. Holding the
// rows of a large table together takes nearly twice as long, and hundreds of bytes for each.
void AddressAliasDbMySQL::streamEntries(Cache& cache) {
  std::uint32_t count = 0;
  const auto add = [&](const AddressAliasRow& row) {
    cache.add(row.alias(), row.members());
    ++count;
  };
  Database::TsRowStream<AddressAliasRow, decltype(add)> parser(add);
  Database::Query query(m_mapDb.connection(), &parser, true);
  const Synchronized lock(*m_mutex);
  query << "select * from " << m_table << ";";
  execute(query);
  m_entries = count;
}

void AddressAliasDbMySQL::queryAdd(const EmailAddress& alias, const Members& members) {
  Database::Query query(m_mapDb.connection(), nullptr, true);
  const Synchronized lock(*m_mutex);
  query << "insert into " << m_table << " ( name, members ) values( '"
        << emailAddressEscapedWrite(alias) << "','";
  writeMemberSet(members, query);
  query << "') on duplicate key update members=values( members );";
  execute(query);
}

void AddressAliasDbMySQL::queryDelete(const EmailAddress& alias) {
  Database::Query query(m_mapDb.connection(), nullptr, true);
  const Synchronized lock(*m_mutex);
  query << "delete from " << m_table << " where name ='" << emailAddressEscapedWrite(alias) << "';";
  execute(query);
}

void AddressAliasDbMySQL::queryDelete(const std::string& domain) {
  Database::Query query(m_mapDb.connection(), nullptr, true);
  const Synchronized lock(*m_mutex);
  query << "delete from " << m_table << " where name like'%@" << domain << "';";
  execute(query);
}

void AddressAliasDbMySQL::writeMemberSet(const Members& members, std::ostream& stream) {
  const char* separator = "";
  for (const EmailAddress& member : members) {
    stream << separator << member;
    separator = ",";
  }
}

bool AddressAliasDbMySQL::isEveryAliasCached() const {
  return m_cache.size() >= m_entries;
}

}  // namespace Tessel
