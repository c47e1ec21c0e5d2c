// The domains of the configuration: look-up by name, and the list of all.
//
// The configuration lies in the directory named by TSL_CMF_PATH (default /var/lib/tsl/cmf). Its
// files and the rights they need are described in StorageFormat.h; it is written by `Writer`, and
// the users of a domain are read by `TableQuery`. Its greatest size is 16 GiB, which costs address
// space only; TSL_CMF_MAP_MIB sets another one, in MiB, and must be the same for all processes.
// Both variables are read each time; a program must not change them while other threads run.
#ifndef TSL_CMF_APSGWSERVERCACHE_H
#define TSL_CMF_APSGWSERVERCACHE_H

#include <memory>
#include <string>
#include <vector>

#include "TslRefcounted.h"
#include "base/Export.h"
#include "cmf/ApsGwServer.h"

namespace Tessel::CMF {

class Environment;

// Body: the domains of one open configuration. Each call reads the newest committed state, or the
// calling thread's locked one (`cmf_shm_read_lock`). Any thread may call any operation; none waits
// for a writer. In a forked child it reads an environment that the child opened itself.
class TSL_EXPORT ApsGwServerCache : public RefImpl {
 public:
  explicit ApsGwServerCache(std::shared_ptr<Environment> environment);
  ~ApsGwServerCache() override;

  // The server record of `domain`, compared without regard to ASCII letter case. A handle that
  // holds nothing when there is no such domain. Throws Exception, code 4, when the configuration
  // cannot be read.
  [[nodiscard]] RefApsGwServer find(const std::string& domain) const;

  // The records of all domains in ascending order of the lower-cased name; empty when there are
  // none. Throws Exception, code 4, when the configuration cannot be read.
  [[nodiscard]] std::vector<ApsGwServerRecord> domains() const;

 private:
  [[nodiscard]] std::shared_ptr<Environment> environment() const;

  std::shared_ptr<Environment> m_environment;
};

// Handle over the open configuration.
class TSL_EXPORT RefApsGwServerCache : public Ref<ApsGwServerCache> {
 public:
  using Ref<ApsGwServerCache>::Ref;

  // The configuration in the directory that TSL_CMF_PATH names now: the open one when its files are
  // still those in the directory, otherwise it is opened. With `reopen` true a configuration that
  // no handle uses is closed and opened again even so. Opening creates nothing. Throws Exception,
  // code 4, when the configuration is absent or cannot be read. Any thread.
  static RefApsGwServerCache instance(bool reopen);
};

}  // namespace Tessel::CMF

#endif
