// The configuration library as the commands use it, with its failures distinguished.
#ifndef TSL_TOOLS_TABLES_CONFIGURATION_H
#define TSL_TOOLS_TABLES_CONFIGURATION_H

#include <string>

#include "base/Exception.h"
#include "cmf/ApsGwServer.h"
#include "failure/Failure.h"

namespace Tessel::Tool {

// The environment variable that names the directory of the configuration.
inline constexpr char s_cmfVariable[] = "TSL_CMF_PATH";

// The directory of the configuration that TSL_CMF_PATH names, or the default one.
std::string configurationDirectory();

// The failure when there is no configuration in the directory. Its status is `Configuration`.
class NoConfiguration : public Failure {
 public:
  using Failure::Failure;
};

// Throws the failure that `exception`, thrown by the configuration library, is: NoConfiguration;
// `Configuration` for a wrong setting; `Unavailable` otherwise.
[[noreturn]] void throwConfigurationFailure(const Exception& exception);

// The server record of `domain`; null when there is none. Throws Failure as above.
CMF::RefApsGwServer findDomain(const std::string& domain);

// Calls `use`, which uses the configuration library, and throws its failures as Failure.
template <class Use>
auto withConfiguration(Use use) {
  try {
    return use();
  } catch (const Exception& exception) {
    throwConfigurationFailure(exception);
  }
}

}  // namespace Tessel::Tool

#endif
