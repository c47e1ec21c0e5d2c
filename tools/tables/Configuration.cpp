// The configuration library as the commands use it.
#include "tables/Configuration.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "cmf/ApsGwServerCache.h"

namespace Tessel::Tool {

namespace {

constexpr char s_default[] = "/var/lib/tsl/cmf";

}  // namespace

std::string configurationDirectory() {
  const char* directory = std::getenv(s_cmfVariable);  // NOLINT(concurrency-mt-unsafe): read only
  return directory != nullptr && *directory != '\0' ? directory : s_default;
}

Failure configurationFailure(const Exception& exception) {
  const std::filesystem::path directory = configurationDirectory();
  const std::string subject = "the configuration in " + directory.string();
  std::error_code error;
  const bool present = std::filesystem::exists(directory / "data.mdb", error);
  if (!present && !error) {
    return {ExitCode::Configuration, subject, reasonOf(exception),
            "name the directory with --cmf or TSL_CMF_PATH, or create one with"
            " 'tsl-address-map domain add'"};
  }
  return {ExitCode::Unavailable, subject, reasonOf(exception),
          "check the permissions of the directory and its files"};
}

CMF::RefApsGwServer findDomain(const std::string& domain) {
  return withConfiguration([&] { return CMF::RefApsGwServerCache::instance(false)->find(domain); });
}

}  // namespace Tessel::Tool
