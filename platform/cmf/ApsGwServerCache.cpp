// Server records: look-up by domain and the list of domains.
#include "cmf/ApsGwServerCache.h"

#include <string_view>
#include <utility>

#include "cmf/Failure.h"
#include "cmf/Snapshot.h"

namespace Tessel::CMF {

namespace {

constexpr Place s_place{"CMF::ApsGwServerCache", "ApsGwServerCache"};

const ApsGwServerRecord& s_checked(const ApsGwServerRecord& record, const std::string& path) {
  // The domain is read up to its NUL, so a damaged record must not be without one.
  if (record.domain[s_maxDomain] != '\0') {
    fail(s_place, "The configuration in " + path + " holds a malformed server record");
  }
  return record;
}

}  // namespace

ApsGwServer::ApsGwServer(const ApsGwServerRecord& record) : m_record(record) {}

ApsGwServer::~ApsGwServer() = default;

std::string ApsGwServer::domain() const {
  return m_record.domain;
}

std::uint32_t ApsGwServer::domainId() const noexcept {
  return m_record.domainId;
}

ApsGwServerCache::ApsGwServerCache(std::shared_ptr<Environment> environment)
    : m_environment(std::move(environment)) {}

ApsGwServerCache::~ApsGwServerCache() = default;

std::shared_ptr<Environment> ApsGwServerCache::environment() const {
  return m_environment->isInherited() ? Environment::forReading(false) : m_environment;
}

RefApsGwServer ApsGwServerCache::find(const std::string& domain) const {
  const auto snapshot = Snapshot::of(environment());
  // No such name can have been stored.
  if (domain.empty() || domain.size() > s_maxDomain || domain.find('\0') != std::string::npos) {
    return {};
  }
  const Key key(s_commonGroup, s_domainTable, foldName(domain));
  const auto* record = snapshot->get<ApsGwServerRecord>(key);
  if (record == nullptr) return {};
  return RefApsGwServer(new ApsGwServer(s_checked(*record, snapshot->environment().path())));
}

std::vector<ApsGwServerRecord> ApsGwServerCache::domains() const {
  const auto snapshot = Snapshot::of(environment());
  const std::string& path = snapshot->environment().path();
  const CursorOwner cursor = openCursor(snapshot->environment(), snapshot->transaction());
  const Key first(s_commonGroup, s_domainTable);
  MDB_val key{first.size(), const_cast<char*>(first.data())};
  MDB_val value{};
  std::vector<ApsGwServerRecord> records;
  std::string last;
  int result = mdb_cursor_get(cursor.get(), &key, &value, MDB_SET_RANGE);
  while (result == 0 && first.sameTable(key.mv_data, key.mv_size)) {
    if (!isRecord(value, sizeof(ApsGwServerRecord))) {
      fail(s_place, "The configuration in " + path + " holds a malformed server record");
    }
    records.push_back(s_checked(*static_cast<const ApsGwServerRecord*>(value.mv_data), path));
    // In a damaged file the next one may be one that was there before, without end.
    const std::string_view name(static_cast<const char*>(key.mv_data), key.mv_size);
    if (name <= last) {
      fail(s_place, "The configuration in " + path + " has its domains in the wrong order");
    }
    last = name;
    result = mdb_cursor_get(cursor.get(), &key, &value, MDB_NEXT);
  }
  if (result != 0 && result != MDB_NOTFOUND) {
    failWith(s_place, "Cannot read the configuration", path, result);
  }
  return records;
}

RefApsGwServerCache RefApsGwServerCache::instance(bool reopen) {
  return RefApsGwServerCache(new ApsGwServerCache(Environment::forReading(reopen)));
}

}  // namespace Tessel::CMF
