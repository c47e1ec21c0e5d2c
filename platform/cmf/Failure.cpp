// Exceptions of this directory, and LMDB's results in words.
#include "cmf/Failure.h"

#include <cerrno>
#include <system_error>

#include <lmdb.h>

#include "base/Exception.h"

namespace Tessel::CMF {

namespace {

// What to do about a result, as a continuation of its description; empty where nothing is known.
const char* s_advice(int result) {
  switch (result) {
    case EACCES:
    case EPERM:
      return " (readers need read permission on data.mdb and read and write permission on lock.mdb;"
             " writers need write permission on both and on the directory)";
    case EFBIG:
    case ENOSPC:
      return " (nothing was stored; make room, or raise the limit of file sizes)";
    case EIO:
      return " (the file system is full or failing; if it was failing, read again to see whether"
             " the change was stored)";
    case ENOMEM:
      return " (where the address space is limited, set TSL_CMF_MAP_MIB lower)";
    case MDB_MAP_FULL:
      return " (nothing was stored; set TSL_CMF_MAP_MIB higher for every process)";
    case MDB_MAP_RESIZED:
      return " (set TSL_CMF_MAP_MIB to the writer's value and start again)";
    case MDB_READERS_FULL:
      return " (too many snapshots are held at the same time)";
    case MDB_PANIC:
      return " (a write failed half-way in this process: start it again)";
    case MDB_INVALID:
    case MDB_CORRUPTED:
    case MDB_PAGE_NOTFOUND:
      return " (the configuration is damaged: restore it, or remove the directory and load it "
             "again)";
    default:
      return "";
  }
}

}  // namespace

std::string reasonOf(int result) {
  // mdb_strerror is safe in threads for LMDB's own, negative results only.
  const std::string text =
      result < 0 ? mdb_strerror(result) : std::generic_category().message(result);
  return text + s_advice(result);
}

void fail(const Place& place, const std::string& detail, int line) {
  throw Exception(Exception(place.context, 4, place.file, line).stringParameter(detail));
}

void failWith(const Place& place, const std::string& what, const std::string& path, int result,
              int line) {
  fail(place, what + " in " + path + ": " + reasonOf(result), line);
}

}  // namespace Tessel::CMF
