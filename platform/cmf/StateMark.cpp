// The mark of a state: its transaction, and what the file system says about the files.
#include "cmf/StateMark.h"

#include <sys/stat.h>

#include <cerrno>

#include "cmf/Failure.h"
#include "cmf/Snapshot.h"

namespace Tessel::CMF {

namespace {

constexpr Place s_place{"CMF::StateMark", "StateMark"};

}  // namespace

StateMark stateMark() {
  const auto snapshot = Snapshot::ofThisThread();
  const Environment& environment = snapshot->environment();
  mdb_filehandle_t descriptor = -1;
  struct stat status {};
  if (mdb_env_get_fd(environment.handle(), &descriptor) != 0 || ::fstat(descriptor, &status) != 0) {
    failWith(s_place, "Cannot examine data.mdb", environment.path(), errno);
  }
  const FileIdentity& identity = environment.identity();
  return {mdb_txn_id(snapshot->transaction()),
          environment.lastTransaction(),
          {identity.dataDevice, identity.dataInode, identity.lockDevice, identity.lockInode},
          {status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec}};
}

}  // namespace Tessel::CMF
