// The configuration library as the commands use it.
#include "tables/Configuration.h"

#include <filesystem>
#include <system_error>

#include "cmf/ApsGwServerCache.h"

namespace Tessel::Tool {

Failure configurationFailure(const Exception& exception, const Session& session) {
  const std::filesystem::path folder = session.cmfFolder();
  const std::string subject = "the configuration in " + folder.string();
  std::error_code error;
  const bool present = std::filesystem::exists(folder / "data.mdb", error);
  if (!present && !error) {
    return {ExitCode::Configuration, subject, reasonOf(exception),
            "name the folder with --cmf or TSL_CMF_PATH, or make a configuration with"
            " 'tsl-address-map domain add'"};
  }
  return {ExitCode::Unavailable, subject, reasonOf(exception),
          "check the rights on the folder and its files"};
}

CMF::RefApsGwServer findDomain(const Session& session, const std::string& domain) {
  return withConfiguration(session,
                           [&] { return CMF::RefApsGwServerCache::instance(false)->find(domain); });
}

}  // namespace Tessel::Tool
