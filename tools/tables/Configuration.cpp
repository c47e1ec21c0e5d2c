// The configuration library as the commands use it.
#include "tables/Configuration.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "cmf/ApsGwServerCache.h"

namespace Tessel::Tool {

namespace {

constexpr char s_default[] = "/var/lib/tsl/cmf";
constexpr char s_mapSizeVariable[] = "TSL_CMF_MAP_MIB";

bool s_isForbidden(const std::string& why) {
  const auto has = [&why](int error) {
    return why.find(std::generic_category().message(error)) != std::string::npos;
  };
  return has(EACCES) || has(EPERM);
}

}  // namespace

std::string configurationDirectory() {
  const char* directory = std::getenv(s_cmfVariable);  // NOLINT(concurrency-mt-unsafe): read only
  return directory != nullptr && *directory != '\0' ? directory : s_default;
}

void throwConfigurationFailure(const Exception& exception) {
  const std::filesystem::path directory = configurationDirectory();
  const std::string subject = "the configuration in " + directory.string();
  const std::string why = reasonOf(exception);
  if (why.starts_with(s_mapSizeVariable)) {
    throw Failure(ExitCode::Configuration, subject, why,
                  std::string("correct ") + s_mapSizeVariable + " in the environment, or unset it");
  }
  std::error_code error;
  const bool present = std::filesystem::exists(directory / "data.mdb", error);
  if (!present && !error) {
    throw NoConfiguration(ExitCode::Configuration, subject, why,
                          "name the directory with --cmf or TSL_CMF_PATH, or create one with"
                          " 'tsl-address-map domain add'");
  }
  // The other reasons say what to do.
  throw Failure(ExitCode::Unavailable, subject, why,
                s_isForbidden(why) ? "check the permissions of the directory and its files" : "");
}

CMF::RefApsGwServer findDomain(const std::string& domain) {
  return withConfiguration([&] { return CMF::RefApsGwServerCache::instance(false)->find(domain); });
}

}  // namespace Tessel::Tool
