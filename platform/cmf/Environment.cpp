// The process-wide list of open environments, and one environment's opening and reading.
//
// LMDB forbids to open an environment twice in one process: closing one of the two would drop the
// file locks of both, and other processes would take this one's readers for dead. So every open one
// is on one list, found by its files, and nothing but the list closes one, under the list's mutex.
// LMDB forbids to use an environment after a fork, too: a child starts with an empty list, and
// keeps what it inherited open but untouched, since closing it would harm the parent or drop the
// locks of the child's own.
#include "cmf/Environment.h"

#include <pthread.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "base/Guarded.h"
#include "cmf/EnvironmentFiles.h"
#include "cmf/Failure.h"

namespace Tessel::CMF {

namespace {

constexpr Place s_openPlace{"CMF::Environment::open", "Environment"};
constexpr Place s_readPlace{"CMF::Environment::read", "Environment"};

// Snapshots that may be held at the same time on the whole host. A slot costs 64 bytes of lock.mdb;
// a snapshot is held for microseconds, so this is far more than all mail-server threads need.
constexpr unsigned int s_maxReaders = 1024;

// How often to look again when the files are replaced while they are being opened.
constexpr int s_openAttempts = 3;

// Used by LMDB when it creates a file, which it never does here: they exist before it is called.
constexpr mdb_mode_t s_fileMode = 0660;

using Open = std::vector<std::shared_ptr<Environment>>;

struct Registry {
  Guarded<Open> open;
  Registry* inherited = nullptr;  // The parent's, never used and never freed.
};

// Never destroyed: threads may still read while the process ends.
std::atomic<Registry*> s_registry{nullptr};

void s_startAsChild() {
  Environment::startAsChild();
  // The old one's mutex may be held by a thread that does not exist here, so it is left alone.
  auto* registry = new Registry;
  registry->inherited = s_registry.load();
  s_registry.store(registry);
}

Registry& s_list() {
  static const bool s_prepared = [] {
    s_registry.store(new Registry);
    return ::pthread_atfork(nullptr, nullptr, &s_startAsChild) == 0;
  }();
  if (!s_prepared) fail(s_openPlace, "No memory to register the fork handler");
  return *s_registry.load();
}

std::shared_ptr<Environment> s_find(const Open& open, const FileIdentity& identity) {
  const auto found = std::find_if(open.begin(), open.end(),
                                  [&](const auto& one) { return one->identity() == identity; });
  return found != open.end() ? *found : nullptr;
}

// Closes the environments that only the list refers to. Nobody else can get hold of one meanwhile.
void s_closeUnused(Open& open) {
  std::erase_if(open, [](const auto& one) { return one.use_count() == 1; });
}

// Null when the files changed while they were opened.
std::shared_ptr<Environment> s_open(Open& open, const std::string& path,
                                    const FileIdentity& identity, bool writable) {
  s_closeUnused(open);
  for (const auto& one : open) {
    if (one->identity().sameLock(identity)) {
      fail(s_openPlace, "data.mdb in " + path +
                            " was replaced next to a lock.mdb in use: replace the whole directory,"
                            " and start this program again");
    }
  }
  auto environment = std::make_shared<Environment>(path, identity, writable);
  if (findFiles(path, writable) != identity) return nullptr;
  open.push_back(environment);
  return environment;
}

// Opens the files in `path` as they are now. Retries while somebody replaces them.
std::shared_ptr<Environment> s_obtain(Open& open, const std::string& path, bool writable) {
  // A wrong setting is named even where there is no configuration.
  static_cast<void>(configuredMapSize());
  for (int attempt = 0; attempt < s_openAttempts; ++attempt) {
    const FileIdentity identity = findFiles(path, writable);
    std::shared_ptr<Environment> environment = s_find(open, identity);
    if (environment != nullptr && writable && !environment->isWritable()) {
      environment.reset();
      s_closeUnused(open);
      if (s_find(open, identity) != nullptr) {
        fail(s_openPlace, "The configuration in " + path +
                              " is open for reading in this process: release what reads it first");
      }
    }
    if (environment != nullptr) return environment;
    environment = s_open(open, path, identity, writable);
    if (environment != nullptr) return environment;
  }
  fail(s_openPlace, "The configuration in " + path + " is being replaced: try again");
}

}  // namespace

std::atomic<unsigned int> Environment::s_generation{0};

std::shared_ptr<Environment> Environment::forReading(bool reopen) {
  return s_list().open.with([reopen](Open& open) {
    if (reopen) s_closeUnused(open);
    return s_obtain(open, configuredPath(), false);
  });
}

std::shared_ptr<Environment> Environment::forWriting() {
  const std::string path = configuredPath();
  createFiles(path);
  return s_list().open.with([&path](Open& open) { return s_obtain(open, path, true); });
}

Environment::Environment(std::string path, const FileIdentity& identity, bool writable)
    : m_path(std::move(path)), m_identity(identity), m_generation(s_generation.load()) {
  // LMDB fills a file that it finds empty, even for a reader: one that is just being copied into
  // place would lose its content to a reader who may write.
  const int result = open(writable ? 0 : MDB_RDONLY);
  m_writable = writable && result == 0;
  if (result != 0) {
    failWith(s_openPlace, writable ? "Cannot open for writing" : "Cannot open the configuration",
             m_path, result);
  }
  clearDeadReaders();
  openRecords();
}

Environment::~Environment() {
  if (isInherited()) static_cast<void>(m_env.release());
}

void Environment::clearDeadReaders() const noexcept {
  int dead = 0;
  static_cast<void>(mdb_reader_check(m_env.get(), &dead));
}

std::uint64_t Environment::lastTransaction() const noexcept {
  MDB_envinfo info{};
  static_cast<void>(mdb_env_info(m_env.get(), &info));
  return info.me_last_txnid;
}

std::string Environment::overwritten() const {
  return "data.mdb in " + m_path +
         " was overwritten while programs use it: end them all, and try again";
}

int Environment::open(unsigned int flags) {
  MDB_env* env = nullptr;
  int result = mdb_env_create(&env);
  if (result != 0) return result;
  m_env.reset(env);
  result = mdb_env_set_mapsize(env, configuredMapSize());
  if (result == 0) result = mdb_env_set_maxreaders(env, s_maxReaders);
  // Without thread-local slots a snapshot belongs to an object, which may move between threads.
  if (result == 0) result = mdb_env_open(env, m_path.c_str(), flags | MDB_NOTLS, s_fileMode);
  if (result != 0) m_env.reset();
  return result;
}

void Environment::openRecords() {
  MDB_txn* txn = nullptr;
  int result = mdb_txn_begin(m_env.get(), nullptr, MDB_RDONLY, &txn);
  if (result != 0) failWith(s_openPlace, "Cannot read the configuration", m_path, result);
  // Here and nowhere else: LMDB wants no two threads to open a database at the same time.
  MDB_stat pages{};
  result = mdb_dbi_open(txn, nullptr, 0, &m_records);
  if (result == 0) result = mdb_stat(txn, m_records, &pages);
  mdb_txn_abort(txn);
  if (result != 0) failWith(s_openPlace, "Cannot read the configuration", m_path, result);

  // Reading beyond the end of a truncated file kills the process, so what can be noticed is
  // reported here: two header pages and the pages of the tree must be in the file. Free pages need
  // not be.
  mdb_filehandle_t descriptor = -1;
  struct stat status {};
  if (mdb_env_get_fd(m_env.get(), &descriptor) != 0 || ::fstat(descriptor, &status) != 0) {
    failWith(s_openPlace, "Cannot examine data.mdb", m_path, errno);
  }
  const std::size_t needed =
      (2 + pages.ms_branch_pages + pages.ms_leaf_pages + pages.ms_overflow_pages) * pages.ms_psize;
  if (static_cast<std::size_t>(status.st_size) < needed) {
    fail(s_openPlace, "data.mdb in " + m_path +
                          " is truncated: restore it, or remove the directory and load it again");
  }
}

const void* Environment::get(MDB_txn* txn, const Key& key, std::size_t size) const {
  // LMDB takes keys as writable memory but only reads them.
  MDB_val name{key.size(), const_cast<char*>(key.data())};
  MDB_val value{};
  const int result = mdb_get(txn, m_records, &name, &value);
  if (result == MDB_NOTFOUND) return nullptr;
  if (result != 0) failWith(s_readPlace, "Cannot read the configuration", m_path, result);
  if (!isRecord(value, size)) {
    fail(s_readPlace, "The configuration in " + m_path + " holds a malformed record");
  }
  return value.mv_data;
}

const MetaRecord* Environment::meta(MDB_txn* txn) const {
  const auto* meta =
      static_cast<const MetaRecord*>(get(txn, Key(s_commonGroup, s_metaTable), sizeof(MetaRecord)));
  if (meta == nullptr) return nullptr;
  if (std::memcmp(meta->magic, s_formatMagic, sizeof(s_formatMagic)) != 0) {
    fail(s_readPlace, "What lies in " + m_path + " is no configuration");
  }
  if (meta->version != s_formatVersion) {
    fail(s_readPlace, "The configuration in " + m_path + " has format version " +
                          std::to_string(meta->version) + ", this program knows version " +
                          std::to_string(s_formatVersion));
  }
  return meta;
}

bool isRecord(const MDB_val& value, std::size_t size) noexcept {
  return value.mv_size == size && reinterpret_cast<std::uintptr_t>(value.mv_data) % s_unit == 0;
}

}  // namespace Tessel::CMF
