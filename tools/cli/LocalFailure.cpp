// The private server as the commands use it.
#include "cli/LocalFailure.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "local/ServerProcess.h"

namespace Tessel::Tool {

namespace {

bool s_isSetUp(const std::string& directory) {
  std::error_code error;
  try {
    findServerProgram({"mariadbd", "mysqld"});
    return LocalCluster::isIn(directory) ||
           std::filesystem::exists(LocalServer(directory).dataDirectory(), error);
  } catch (const Exception&) {
    return false;
  }
}

}  // namespace

Failure localFailure(const Exception& exception, const std::string& directory) {
  const bool setUp = s_isSetUp(directory);
  std::string why = reasonOf(exception);
  // The reason may quote lines of the server's log.
  std::replace(why.begin(), why.end(), '\n', '|');
  return {setUp ? ExitCode::Unavailable : ExitCode::Configuration,
          "the private server in '" + directory + "'", why,
          setUp ? "see the log in that directory, then try 'tsl-address-map local start'"
                : "correct that, or name another directory with --local=DIR"};
}

std::string defaultLocalDirectory() {
  try {
    return LocalServer::defaultDirectory();
  } catch (const Exception& exception) {
    throw Failure(ExitCode::Configuration, "the directory of the private server",
                  reasonOf(exception), "name one with --local=DIR");
  }
}

}  // namespace Tessel::Tool
