// The open LMDB environment of a configuration directory: one per directory and process. Private to
// platform/cmf.
#ifndef TSL_CMF_ENVIRONMENT_H
#define TSL_CMF_ENVIRONMENT_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <lmdb.h>

#include "cmf/EnvironmentFiles.h"
#include "cmf/StorageFormat.h"

namespace Tessel::CMF {

// An open environment. Any thread may call any operation. Shared by everything that reads or writes
// through it; the process-wide list of open environments holds one reference more, and only that
// list closes one (see Environment.cpp).
class Environment {
 public:
  // The environment in the directory that TSL_CMF_PATH names now. Creates nothing. With `reopen`
  // true every environment that nobody uses is closed first. Throws Exception, code 4, when it is
  // absent or cannot be opened.
  static std::shared_ptr<Environment> forReading(bool reopen);
  // The same, open for writing; the directory and its files are created where they are missing. A
  // failure while an object of this process holds what forReading() opened.
  static std::shared_ptr<Environment> forWriting();

  // For the list of open environments: a forked child calls it once, before anything else.
  static void startAsChild() noexcept { s_generation.fetch_add(1); }
  // For the list of open environments. Opens the files in `path`, which must exist; with `writable`
  // false data.mdb is opened for reading only. Throws Exception, code 4.
  Environment(std::string path, const FileIdentity& identity, bool writable);
  ~Environment();
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

  [[nodiscard]] MDB_env* handle() const noexcept { return m_env.get(); }
  [[nodiscard]] MDB_dbi records() const noexcept { return m_records; }
  // The directory, as it was named when it was opened.
  [[nodiscard]] const std::string& path() const noexcept { return m_path; }
  [[nodiscard]] const FileIdentity& identity() const noexcept { return m_identity; }
  // False when data.mdb is open for reading only.
  [[nodiscard]] bool isWritable() const noexcept { return m_writable; }
  // True in a forked child of the process that opened it: the child must not use it, nor any
  // transaction of it, and must not end them either, because they are the parent's.
  [[nodiscard]] bool isInherited() const noexcept {
    return m_generation != s_generation.load(std::memory_order_relaxed);
  }
  // Number of the last transaction that data.mdb itself knows of. Readers and writers go by the one
  // in lock.mdb: where they differ, another data.mdb was written over one in use, and LMDB takes an
  // older state for the newest.
  [[nodiscard]] std::uint64_t lastTransaction() const noexcept;
  // The reason of a failure then.
  [[nodiscard]] std::string overwritten() const;
  // Frees what processes that died left in the table of readers. Failures do not matter here: the
  // slots stay in use until the next call.
  void clearDeadReaders() const noexcept;

  // The value under `key` in `txn`, `size` bytes and aligned; null when there is none. It lives as
  // long as the transaction, in a write transaction until the next write. Throws Exception, code 4,
  // when the value is not such a record or cannot be read.
  const void* get(MDB_txn* txn, const Key& key, std::size_t size) const;
  // The record of the format in `txn`; null when nothing was ever stored. Throws Exception, code 4,
  // when the format is not the one this program knows.
  const MetaRecord* meta(MDB_txn* txn) const;

 private:
  struct Close {
    void operator()(MDB_env* env) const noexcept { mdb_env_close(env); }
  };

  int open(unsigned int flags);
  void openRecords();

  // Counts the forks between this process and the one that loaded the library.
  static std::atomic<unsigned int> s_generation;

  const std::string m_path;
  const FileIdentity m_identity;
  const unsigned int m_generation;
  bool m_writable = false;
  std::unique_ptr<MDB_env, Close> m_env;
  MDB_dbi m_records = 0;
};

// True when `value` may be read in place as a record of `size` bytes.
bool isRecord(const MDB_val& value, std::size_t size) noexcept;

}  // namespace Tessel::CMF

#endif
