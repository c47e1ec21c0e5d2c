// Fuzz target of the configuration's records, which are read in place: whatever a few of them hold,
// every reader gives what is stored, says that it is not there, or throws, and never the one for
// the other. The bytes of an input are edits of an intact configuration, see `Edits`. Damage to the
// pages of the file is the storage library's business.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "address/EmailAddress.h"
#include "alias/AddressAliasDbMySQL.h"
#include "base/Exception.h"
#include "cmf/ApsGwServerCache.h"
#include "cmf/MailUser.h"
#include "cmf/Snapshot.h"
#include "cmf/StorageFormat.h"
#include "cmf/TableQuery.h"
#include "cmf/Writer.h"
#include "cmf/cmf_query.h"
#include "fuzz/Fuzz.h"
#include "fuzz/ScratchDirectory.h"

using Tessel::AddressAliasDbMySQL;
using Tessel::EmailAddress;
using Tessel::Exception;
using Tessel::CMF::ApsGwServerRecord;
using Tessel::CMF::foldName;
using Tessel::CMF::Key;
using Tessel::CMF::MetaRecord;
using Tessel::CMF::RefApsGwServerCache;
using Tessel::CMF::s_commonGroup;
using Tessel::CMF::s_domainTable;
using Tessel::CMF::s_mailUserTable;
using Tessel::CMF::s_metaTable;
using Tessel::CMF::s_unit;
using Tessel::CMF::TableRecord;
using Tessel::CMF::Writer;
using Tessel::Fuzz::asText;
using Tessel::Fuzz::outcomeOf;
using Tessel::Fuzz::require;
using Tessel::Fuzz::ScratchDirectory;
using Tessel::Fuzz::Variable;

namespace {

using Records = std::map<std::string, std::string>;  // In the order of the storage library.
using UserQuery = Tessel::CMF::TableQuery<__aps_mail_user, s_mailUserTable>;

// Room for what the longest input can make of the records.
constexpr std::size_t s_mapMiB = 16;

std::string s_key(std::uint32_t group, std::uint32_t table, std::string_view name = {}) {
  const Key key(group, table, name);
  return {key.data(), key.size()};
}

template <class Record>
std::string s_bytes(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

std::string s_server(const char* domain, std::uint32_t id) {
  ApsGwServerRecord record;
  std::memset(&record, 0, sizeof(record));
  std::strncpy(record.domain, domain, sizeof(record.domain) - 1);
  record.domainId = id;
  return s_bytes(record);
}

std::string s_user(const char* name, std::int32_t kind) {
  __aps_mail_user record;
  std::memset(&record, 0, sizeof(record));
  std::strncpy(record.user_name, name, sizeof(record.user_name) - 1);
  record.kind = kind;
  return s_bytes(record);
}

// Two domains, one with three users and one with none.
Records s_intact() {
  MetaRecord meta{{}, Tessel::CMF::s_formatVersion, 2};
  std::copy_n(Tessel::CMF::s_formatMagic, sizeof(meta.magic), meta.magic);
  return {{s_key(s_commonGroup, s_metaTable), s_bytes(meta)},
          {s_key(s_commonGroup, s_domainTable, "d.example"), s_server("D.example", 1)},
          {s_key(s_commonGroup, s_domainTable, "e.example"), s_server("e.example", 2)},
          {s_key(1, s_mailUserTable), s_bytes(TableRecord{3, sizeof(__aps_mail_user), 0})},
          {s_key(1, s_mailUserTable, "alice"), s_user("Alice", 1)},
          {s_key(1, s_mailUserTable, "bob"), s_user("bob", 2)},
          {s_key(1, s_mailUserTable, "carol"), s_user("carol", 1)},
          {s_key(2, s_mailUserTable), s_bytes(TableRecord{0, sizeof(__aps_mail_user), 0})}};
}

// Reads the edits off an input. Each begins with a byte for what is done and one for the record, by
// its place; texts have a byte with their length before them, numbers have two bytes.
class Edits {
 public:
  explicit Edits(std::string_view input) : m_input(input) {}

  void apply(Records& records) {
    while (!m_input.empty() && !records.empty()) {
      const unsigned action = byte() % 5;
      const auto record = std::next(records.begin(), static_cast<int>(byte() % records.size()));
      std::string& value = record->second;
      if (action == 0) {  // Other bytes at an offset.
        const std::size_t offset = value.empty() ? 0 : number() % value.size();
        const std::string_view bytes = text().substr(0, value.size() - offset);
        value.replace(offset, bytes.size(), bytes);
      } else if (action == 1) {  // Another size.
        value.resize(number() % 1024, 'x');
      } else if (action == 2) {
        records.erase(record);
      } else if (action == 3) {  // Another key.
        std::string moved = std::move(value);
        records.erase(record);
        records[key(text())] = std::move(moved);
      } else {  // A copy under another name in the same table.
        const std::string copy = value;
        records[key(record->first.substr(0, 8) + std::string(text()))] = copy;
      }
    }
  }

 private:
  unsigned byte() {
    if (m_input.empty()) return 0;
    const auto value = static_cast<unsigned char>(m_input.front());
    m_input.remove_prefix(1);
    return value;
  }
  std::size_t number() {
    const std::size_t high = byte();
    return high * 256 + byte();
  }
  std::string_view text() {
    const std::string_view text = m_input.substr(0, byte());
    m_input.remove_prefix(std::min(text.size(), m_input.size()));
    return text;
  }
  // The storage library takes no empty key.
  static std::string key(std::string_view text) { return std::string(text.empty() ? "x" : text); }

  std::string_view m_input;
};

// Stores `records`, and nothing else, in the directory `path`.
void s_store(const std::string& path, const Records& records) {
  const auto mustSucceed = [](int result) { require(result == 0, mdb_strerror(result)); };
  MDB_env* env = nullptr;
  mustSucceed(mdb_env_create(&env));
  const std::unique_ptr<MDB_env, decltype(&mdb_env_close)> owner(env, &mdb_env_close);
  mustSucceed(mdb_env_set_mapsize(env, s_mapMiB << 20U));
  mustSucceed(mdb_env_open(env, path.c_str(), MDB_NOTLS | MDB_NOSYNC, 0660));
  MDB_txn* txn = nullptr;
  mustSucceed(mdb_txn_begin(env, nullptr, 0, &txn));
  Tessel::CMF::TransactionOwner transaction(txn);
  MDB_dbi all = 0;
  mustSucceed(mdb_dbi_open(txn, nullptr, 0, &all));
  mustSucceed(mdb_drop(txn, all, 0));
  for (const auto& [key, value] : records) {
    MDB_val name{key.size(), const_cast<char*>(key.data())};
    MDB_val content{value.size(), const_cast<char*>(value.data())};
    mustSucceed(mdb_put(txn, all, &name, &content, 0));
  }
  mustSucceed(mdb_txn_commit(transaction.release()));
}

// What readers should find in the records: what is there, by the rules of StorageFormat.h.
class Model {
 public:
  struct Malformed {};

  explicit Model(const Records& records) : m_records(records) {
    for (const auto& [key, value] : records) {
      m_isAligned = m_isAligned && key.size() % s_unit == 0 && value.size() % s_unit == 0;
    }
  }

  // True when every record starts where it should. Otherwise any may be refused.
  [[nodiscard]] bool isAligned() const { return m_isAligned; }

  // The record under `key`, or nothing. Throws Malformed, as all below.
  template <class Record>
  [[nodiscard]] std::optional<Record> get(const std::string& key) const {
    const auto found = m_records.find(key);
    if (found == m_records.end()) return std::nullopt;
    return read<Record>(found->second);
  }

  void checkMeta() const {
    const auto meta = get<MetaRecord>(s_key(s_commonGroup, s_metaTable));
    mustHold(meta.has_value());
    mustHold(std::equal(meta->magic, meta->magic + 8, Tessel::CMF::s_formatMagic));
    mustHold(meta->version == Tessel::CMF::s_formatVersion);
  }

  [[nodiscard]] std::optional<ApsGwServerRecord> server(const std::string& domain) const {
    checkMeta();
    const auto record =
        get<ApsGwServerRecord>(s_key(s_commonGroup, s_domainTable, foldName(domain)));
    if (record) mustHold(record->domain[Tessel::CMF::s_maxDomain] == '\0');
    return record;
  }

  [[nodiscard]] std::vector<ApsGwServerRecord> domains() const {
    checkMeta();
    std::vector<ApsGwServerRecord> domains;
    const std::string table = s_key(s_commonGroup, s_domainTable);
    for (auto it = m_records.lower_bound(table);
         it != m_records.end() && it->first.starts_with(table); ++it) {
      domains.push_back(read<ApsGwServerRecord>(it->second));
      mustHold(domains.back().domain[Tessel::CMF::s_maxDomain] == '\0');
    }
    return domains;
  }

  [[nodiscard]] std::vector<__aps_mail_user> users(std::uint32_t domainId) const {
    checkMeta();
    const std::string key = s_key(domainId, s_mailUserTable);
    const auto table = get<TableRecord>(key);
    mustHold(domainId != s_commonGroup && table && table->recordSize == sizeof(__aps_mail_user));
    mustHold(table->count >= 0 && table->count <= std::numeric_limits<std::int32_t>::max());
    std::vector<__aps_mail_user> users;
    auto row = m_records.find(key);
    for (std::int64_t i = 0; i < table->count; ++i) {
      ++row;
      mustHold(row != m_records.end() && row->first.starts_with(key));
      users.push_back(read<__aps_mail_user>(row->second));
      mustHold(users.back().user_name[Tessel::CMF::s_userNameRoom - 1] == '\0');
    }
    return users;
  }

  // True when some row of the table that `key` begins with is `bytes`.
  [[nodiscard]] bool hasRow(const std::string& key, std::string_view bytes) const {
    return std::any_of(m_records.begin(), m_records.end(), [&](const auto& record) {
      return record.first.starts_with(key) && record.second == bytes;
    });
  }

 private:
  static void mustHold(bool holds) {
    if (!holds) throw Malformed{};
  }
  template <class Record>
  static Record read(const std::string& value) {
    mustHold(value.size() == sizeof(Record));
    Record record;
    std::memcpy(&record, value.data(), sizeof(record));
    return record;
  }

  const Records& m_records;
  bool m_isAligned = true;
};

// Compares what `read` gives with what `expect` says: the same value, or both refuse. Only records
// that do not lie where they should may be refused beyond that.
template <class Expect, class Read, class IsSame>
void s_compare(const Model& model, const char* what, const Expect& expect, const Read& read,
               const IsSame& isSame) {
  std::optional<decltype(expect())> expected;
  try {
    expected.emplace(expect());
  } catch (const Model::Malformed&) {
  }
  const auto got = outcomeOf(read);
  require(expected || !got.value, what, "nothing is read from malformed records");
  if (expected && !got.value) require(!model.isAligned(), what, got.refusal);
  if (expected && got.value) require(isSame(*expected, *got.value), what, "another value");
}

template <class Record>
bool s_isSame(const Record& a, const Record& b) {
  return std::memcmp(&a, &b, sizeof(Record)) == 0;
}

template <class Record>
bool s_areSame(const std::vector<Record>& a, const std::vector<Record>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), s_isSame<Record>);
}

constexpr const char* s_domains[] = {"d.example", "E.EXAMPLE", "f.example"};

void s_checkDomains(const Model& model) {
  for (const std::string domain : s_domains) {
    s_compare(
        model, "a domain", [&] { return model.server(domain); },
        [&] { return RefApsGwServerCache::instance(false)->find(domain); },
        [](const auto& expected, const auto& got) {
          if (!expected || got.isNull()) return !expected && got.isNull();
          return got->domain() == expected->domain && got->domainId() == expected->domainId;
        });
  }
  s_compare(
      model, "the domains", [&] { return model.domains(); },
      [] { return RefApsGwServerCache::instance(false)->domains(); }, s_areSame<ApsGwServerRecord>);
}

void s_checkUsers(const Model& model) {
  for (const std::uint32_t id : {0U, 1U, 2U, 3U}) {
    s_compare(
        model, "the users of a domain", [&] { return model.users(id); },
        [&] {
          const UserQuery query(id);
          std::vector<__aps_mail_user> users;
          for (const __aps_mail_user& user : query) users.push_back(user);
          return users;
        },
        s_areSame<__aps_mail_user>);
  }
}

// The expansion never fails for the configuration's sake: the marker stays then.
void s_checkAllUsers(const Model& model) {
  using Members = std::set<EmailAddress>;
  for (const std::string domain : s_domains) {
    const Members marker{EmailAddress::create("allusers_" + domain, "", true)};
    Members expected = marker;
    try {
      if (const auto server = model.server(domain)) {
        Members users;
        for (const __aps_mail_user& user : model.users(server->domainId)) {
          if (user.kind != Tessel::CMF::MailUserMailbox) continue;
          const std::string text = user.user_name + ("@" + domain);
          users.insert(EmailAddress::rfc5322Parse(text, true));
        }
        users.erase(EmailAddress());
        expected = users;
      }
    } catch (const Model::Malformed&) {
    } catch (const Exception&) {
    }
    const EmailAddress alias = EmailAddress::create("all", domain, false);
    const Members got = AddressAliasDbMySQL::withAllUsers(alias, marker);
    require(got == expected || (got == marker && !model.isAligned()), "all users", domain);
  }
}

// The C functions on every table there is, in an order that jumps.
void s_checkTables(const Records& records, const Model& model) {
  for (const auto& [key, value] : records) {
    if (key.size() != 8) continue;
    const auto number = [&key = key](std::size_t offset) {
      std::uint32_t result = 0;
      for (std::size_t i = offset; i < offset + 4; ++i) {
        result = result << 8U | static_cast<unsigned char>(key[i]);
      }
      return result;
    };
    const std::unique_ptr<cmf_query, decltype(&cmf_query_free)> query(
        cmf_query_create_withdomain(number(0), number(4)), &cmf_query_free);
    const std::int32_t count = cmf_query_do_table_size(query.get(), CMF_QUERY_SLOT);
    require(count >= -1, "a number of rows");
    for (const std::int32_t index : {count - 1, 0, count / 2, 1, count, -1}) {
      const bool isSelected = cmf_set_query_cache_st(query.get(), CMF_QUERY_SLOT, index) == 0;
      require(isSelected == (index >= 0 && index < count), "only rows can be selected");
      const void* const row = isSelected ? cmf_query_update(query.get()) : nullptr;
      if (row == nullptr) continue;
      const std::string_view bytes(static_cast<const char*>(row),
                                   cmf_query_record_size(query.get()));
      require(model.hasRow(key, bytes), "a row is one of the table", bytes);
    }
  }
}

// A writer reads what it changes. It gives everything up here.
void s_checkWriter() {
  const auto attempt = [](const auto& change) {
    outcomeOf([&] {
      Writer writer;
      change(writer);
      return true;
    });
  };
  attempt(
      [](Writer& writer) { writer.addUser("d.example", "dave", Tessel::CMF::MailUserMailbox); });
  attempt([](Writer& writer) { writer.addUser("d.example", "bob", Tessel::CMF::MailUserMailbox); });
  attempt([](Writer& writer) { writer.removeUser("d.example", "alice"); });
  attempt([](Writer& writer) { writer.removeDomain("d.example"); });
  attempt([](Writer& writer) { writer.addDomain("f.example"); });
}

// Two directories in turn: the libraries close what they have open of one when they open the other,
// which must be before it is stored again.
const std::string& s_nextDirectory() {
  static const ScratchDirectory s_scratch;
  static const std::string s_paths[] = {s_scratch.path() + "/a", s_scratch.path() + "/b"};
  static unsigned s_turn = 0;
  const std::string& path = s_paths[s_turn++ % 2];
  std::filesystem::create_directory(path);
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Records records = s_intact();
  Edits(asText(data, size)).apply(records);
  const std::string& path = s_nextDirectory();
  const Variable named("TSL_CMF_PATH", path);
  const Variable room("TSL_CMF_MAP_MIB", std::to_string(s_mapMiB));
  s_store(path, records);
  const Model model(records);
  s_checkDomains(model);
  s_checkUsers(model);
  s_checkAllUsers(model);
  s_checkTables(records, model);
  s_checkWriter();
  return 0;
}
