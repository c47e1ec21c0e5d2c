// The private server as the commands use it.
#include "cli/LocalFailure.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "local/ServerProcess.h"

namespace Tessel::Tool {

namespace {

bool s_isSetUp(const std::string& folder) {
  std::error_code error;
  try {
    findServerProgram({"mariadbd", "mysqld"});
    return std::filesystem::exists(LocalServer(folder).dataDirectory(), error);
  } catch (const Exception&) {
    return false;
  }
}

}  // namespace

Failure localFailure(const Exception& exception, const std::string& folder) {
  const bool setUp = s_isSetUp(folder);
  std::string why = reasonOf(exception);
  // The reason may quote lines of the server's log.
  std::replace(why.begin(), why.end(), '\n', '|');
  return {setUp ? ExitCode::Unavailable : ExitCode::Configuration,
          "the private server in '" + folder + "'", why,
          setUp ? "see the log in that folder, then try 'tsl-address-map local start'"
                : "correct that, or name another folder with --local=DIR"};
}

std::string defaultLocalFolder() {
  try {
    return LocalServer::defaultDirectory();
  } catch (const Exception& exception) {
    throw Failure(ExitCode::Configuration, "the folder of the private server", reasonOf(exception),
                  "name one with --local=DIR");
  }
}

}  // namespace Tessel::Tool
