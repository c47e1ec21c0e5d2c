// Writer: the records of the storage format, changed in one write transaction.
#include "cmf/Writer.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <unordered_map>

#include "cmf/Failure.h"
#include "cmf/Snapshot.h"

namespace Tessel::CMF {

namespace {

constexpr Place s_place{"CMF::Writer", "Writer"};

// Records must not hold leftover memory, so they start as zeros.
template <class Record>
Record s_zeroed() {
  Record record;
  std::memset(&record, 0, sizeof(record));
  return record;
}

// `name` may end up in addresses, log lines and terminals, so it holds no controls and no "@".
void s_checkName(const std::string& name, std::size_t maxSize, bool allowBlank, const char* what) {
  const std::string subject = std::string(what) + " \"" + name.substr(0, maxSize) + "\"";
  if (name.empty()) fail(s_place, std::string(what) + " is empty");
  if (name.size() > maxSize) {
    fail(s_place, subject + "... is longer than " + std::to_string(maxSize) + " octets");
  }
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) fail(s_place, subject + " holds a control character");
    if (c == '@') fail(s_place, subject + " holds an \"@\"");
    if (c == ' ' && !allowBlank) fail(s_place, subject + " holds a blank");
  }
}

void s_checkDomain(const std::string& domain) {
  s_checkName(domain, s_maxDomain, false, "Domain");
}

void s_checkUser(const std::string& user) {
  s_checkName(user, s_maxUserName, true, "User name");
}

// True when a table may have so many rows: readers refuse any other count.
bool s_isCount(std::int64_t count) {
  return count >= 0 && count <= std::numeric_limits<std::int32_t>::max();
}

}  // namespace

// The open transaction and what it knows of the domains it touched.
class Writer::Transaction {
 public:
  Transaction();
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  Domain addDomain(const std::string& domain);
  bool removeDomain(const std::string& domain);
  UserResult addUser(const std::string& domain, const std::string& user, MailUserKind kind);
  bool removeUser(const std::string& domain, const std::string& user);
  void commit();

 private:
  // A domain that is there, with the number of its users as it will be stored.
  struct KnownDomain {
    std::uint32_t id = 0;
    std::int64_t users = 0;
    bool changed = false;
  };

  void checkOpen() const;
  void end() noexcept;
  [[noreturn]] void giveUp(int result);
  KnownDomain* findDomain(const std::string& folded);
  KnownDomain& existingDomain(const std::string& domain);
  template <class Record>
  int put(const Key& key, Record& record, unsigned int flags, MDB_val& stored);
  template <class Record>
  void store(const Key& key, Record record);
  bool remove(const Key& key);
  void removeGroup(std::uint32_t id);

  // The one open transaction of this thread: a second would wait for the first for ever.
  static thread_local const Transaction* t_open;

  std::shared_ptr<Environment> m_environment;
  TransactionOwner m_transaction;  // Null when it was committed or given up.
  CursorOwner m_cursor;            // Closed before the transaction ends. Keeps the last place.
  MetaRecord m_meta = s_zeroed<MetaRecord>();
  std::unordered_map<std::string, KnownDomain> m_domains;  // By lower-cased name.
};

thread_local const Writer::Transaction* Writer::Transaction::t_open = nullptr;

Writer::Transaction::Transaction() : m_environment(Environment::forWriting()) {
  if (t_open != nullptr && !t_open->m_environment->isInherited()) {
    fail(s_place, "This thread has a writer already");
  }
  m_environment->clearDeadReaders();
  MDB_txn* transaction = nullptr;
  const int result = mdb_txn_begin(m_environment->handle(), nullptr, 0, &transaction);
  if (result != 0) failWith(s_place, "Cannot start to write", m_environment->path(), result);
  m_transaction.reset(transaction);
  // Writing now would lose what the newest state has and an older one has not.
  if (mdb_txn_id(transaction) != m_environment->lastTransaction() + 1) {
    fail(s_place, m_environment->overwritten());
  }
  m_cursor = openCursor(*m_environment, transaction);

  const MetaRecord* const stored = m_environment->meta(transaction);
  if (stored != nullptr) {
    m_meta = *stored;
  } else {
    MDB_stat content{};
    mdb_stat(transaction, m_environment->records(), &content);
    if (content.ms_entries > 0) {
      fail(s_place, "What lies in " + m_environment->path() + " is no configuration");
    }
    std::copy_n(s_formatMagic, sizeof(s_formatMagic), m_meta.magic);
    m_meta.version = s_formatVersion;
  }
  t_open = this;
}

Writer::Transaction::~Transaction() {
  if (m_environment->isInherited()) {
    // Both are the parent's; ending them here would release its lock.
    static_cast<void>(m_cursor.release());
    static_cast<void>(m_transaction.release());
  }
  end();
}

Writer::Domain Writer::Transaction::addDomain(const std::string& domain) {
  checkOpen();
  s_checkDomain(domain);
  const std::string folded = foldName(domain);
  if (const KnownDomain* known = findDomain(folded); known != nullptr) return {known->id, false};
  if (m_meta.lastDomainId == std::numeric_limits<std::uint32_t>::max()) {
    fail(s_place, "All domain identifiers are used up");
  }
  const std::uint32_t id = m_meta.lastDomainId + 1;
  auto record = s_zeroed<ApsGwServerRecord>();
  domain.copy(record.domain, s_maxDomain);
  record.domainId = id;
  // Before the record is stored: what is stored but not noted would be a domain without a table.
  m_domains[folded] = {id, 0, true};
  m_meta.lastDomainId = id;
  store(Key(s_commonGroup, s_domainTable, folded), record);
  return {id, true};
}

bool Writer::Transaction::removeDomain(const std::string& domain) {
  checkOpen();
  s_checkDomain(domain);
  const std::string folded = foldName(domain);
  const KnownDomain* known = findDomain(folded);
  if (known == nullptr) return false;
  removeGroup(known->id);
  remove(Key(s_commonGroup, s_domainTable, folded));
  m_domains.erase(folded);
  return true;
}

Writer::UserResult Writer::Transaction::addUser(const std::string& domain, const std::string& user,
                                                MailUserKind kind) {
  checkOpen();
  s_checkUser(user);
  if (kind != MailUserDisabled && kind != MailUserMailbox && kind != MailUserShared) {
    fail(s_place, "There is no kind " + std::to_string(static_cast<int>(kind)) + " of mail user");
  }
  KnownDomain& known = existingDomain(domain);
  const Key key(known.id, s_mailUserTable, foldName(user));
  auto record = s_zeroed<__aps_mail_user>();
  user.copy(record.user_name, s_maxUserName);
  record.kind = kind;
  MDB_val stored{};
  const int result = put(key, record, MDB_NOOVERWRITE, stored);
  if (result == 0) {
    ++known.users;
    known.changed = true;
    return UserResult::Added;
  }
  if (result != MDB_KEYEXIST) giveUp(result);
  if (!isRecord(stored, sizeof(record))) giveUp(MDB_CORRUPTED);
  std::memcpy(&record, stored.mv_data, sizeof(record));
  if (record.kind == kind) return UserResult::Unchanged;
  record.kind = kind;
  store(key, record);
  return UserResult::Changed;
}

bool Writer::Transaction::removeUser(const std::string& domain, const std::string& user) {
  checkOpen();
  s_checkUser(user);
  KnownDomain& known = existingDomain(domain);
  if (!remove(Key(known.id, s_mailUserTable, foldName(user)))) return false;
  --known.users;
  known.changed = true;
  return true;
}

void Writer::Transaction::commit() {
  checkOpen();
  for (const auto& [name, known] : m_domains) {
    if (!known.changed) continue;
    // More users were removed than the table said that it has.
    if (!s_isCount(known.users)) giveUp(MDB_CORRUPTED);
    store(Key(known.id, s_mailUserTable), TableRecord{known.users, sizeof(__aps_mail_user), 0});
  }
  store(Key(s_commonGroup, s_metaTable), m_meta);
  m_cursor.reset();
  const int result = mdb_txn_commit(m_transaction.release());
  end();
  if (result != 0) {
    failWith(s_place, "Cannot store the configuration", m_environment->path(), result);
  }
}

void Writer::Transaction::checkOpen() const {
  if (m_environment->isInherited()) {
    fail(s_place, "The writer belongs to the process before the fork");
  }
  if (m_transaction == nullptr) {
    fail(s_place, "The transaction has ended: it was committed, or a former call failed");
  }
}

// Gives up the transaction if it is still open, and makes room for the thread's next one.
void Writer::Transaction::end() noexcept {
  m_cursor.reset();
  m_transaction.reset();
  if (t_open == this) t_open = nullptr;
}

// For failures after which LMDB's transaction cannot be used.
void Writer::Transaction::giveUp(int result) {
  end();
  failWith(s_place, "Cannot change the configuration", m_environment->path(), result);
}

// The domain with this lower-cased name; null when there is none.
Writer::Transaction::KnownDomain* Writer::Transaction::findDomain(const std::string& folded) {
  if (const auto known = m_domains.find(folded); known != m_domains.end()) return &known->second;
  MDB_txn* const transaction = m_transaction.get();
  const Key key(s_commonGroup, s_domainTable, folded);
  const auto* server = static_cast<const ApsGwServerRecord*>(
      m_environment->get(transaction, key, sizeof(ApsGwServerRecord)));
  if (server == nullptr) return nullptr;
  const std::uint32_t id = server->domainId;
  const auto* table = static_cast<const TableRecord*>(
      m_environment->get(transaction, Key(id, s_mailUserTable), sizeof(TableRecord)));
  if (table == nullptr || table->recordSize != sizeof(__aps_mail_user) ||
      !s_isCount(table->count)) {
    giveUp(MDB_CORRUPTED);
  }
  return &(m_domains[folded] = {id, table->count, false});
}

Writer::Transaction::KnownDomain& Writer::Transaction::existingDomain(const std::string& domain) {
  s_checkDomain(domain);
  KnownDomain* const known = findDomain(foldName(domain));
  if (known == nullptr) fail(s_place, "There is no domain " + domain + ": add it first");
  return *known;
}

// Puts `record` under `key` and returns LMDB's result; `stored` is what lies there.
template <class Record>
int Writer::Transaction::put(const Key& key, Record& record, unsigned int flags, MDB_val& stored) {
  MDB_val name{key.size(), const_cast<char*>(key.data())};
  stored = {sizeof(record), &record};
  return mdb_cursor_put(m_cursor.get(), &name, &stored, flags);
}

template <class Record>
void Writer::Transaction::store(const Key& key, Record record) {
  MDB_val stored{};
  const int result = put(key, record, 0, stored);
  if (result != 0) giveUp(result);
}

// False when there is no such record.
bool Writer::Transaction::remove(const Key& key) {
  MDB_val name{key.size(), const_cast<char*>(key.data())};
  int result = mdb_cursor_get(m_cursor.get(), &name, nullptr, MDB_SET);
  if (result == MDB_NOTFOUND) return false;
  if (result == 0) result = mdb_cursor_del(m_cursor.get(), 0);
  if (result != 0) giveUp(result);
  return true;
}

// Removes every record of the group `id`.
void Writer::Transaction::removeGroup(std::uint32_t id) {
  const Key first(id, 0);
  for (;;) {
    // Positioned again for each record: LMDB does not document where a cursor is after a deletion.
    MDB_val name{first.size(), const_cast<char*>(first.data())};
    MDB_val value{};
    int result = mdb_cursor_get(m_cursor.get(), &name, &value, MDB_SET_RANGE);
    if (result == MDB_NOTFOUND) return;
    if (result == 0 && !first.sameGroup(name.mv_data, name.mv_size)) return;
    if (result == 0) result = mdb_cursor_del(m_cursor.get(), 0);
    if (result != 0) giveUp(result);
  }
}

Writer::Writer() : m_transaction(std::make_unique<Transaction>()) {}

Writer::~Writer() = default;

Writer::Domain Writer::addDomain(const std::string& domain) {
  return m_transaction->addDomain(domain);
}

bool Writer::removeDomain(const std::string& domain) {
  return m_transaction->removeDomain(domain);
}

Writer::UserResult Writer::addUser(const std::string& domain, const std::string& user,
                                   MailUserKind kind) {
  return m_transaction->addUser(domain, user, kind);
}

bool Writer::removeUser(const std::string& domain, const std::string& user) {
  return m_transaction->removeUser(domain, user);
}

void Writer::commit() {
  m_transaction->commit();
}

}  // namespace Tessel::CMF
