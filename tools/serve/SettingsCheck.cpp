// What is wrong with the settings of the lookup service.
#include "serve/SettingsCheck.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <system_error>

#include "base/Exception.h"
#include "database/OptionSource.h"
#include "disk/AtomicFile.h"
#include "serve/base/AccessRights.h"
#include "serve/image/AliasUse.h"
#include "serve/image/SnapshotFile.h"
#include "serve/socket/ListenSocket.h"
#include "tables/Configuration.h"

namespace Tessel::Serve {

namespace {

using Tool::ExitCode;
using Tool::Failure;

// Throws when `directory` is not one that the user of the process alone may write.
void s_requireOwn(const std::string& directory) {
  SnapshotDirectory(directory).check();
  if (faccessat(AT_FDCWD, directory.c_str(), W_OK, AT_EACCESS) == 0) return;
  throw std::system_error(errno, std::generic_category(), "it cannot be written");
}

void s_checkUse(const std::string& file) try {
  s_requireOwn(Tool::directoryOf(file));
  AliasUse::read(file);
} catch (const std::exception& exception) {
  throw Failure(ExitCode::Configuration, "--count-use " + file, exception.what(),
                "name a file that is not there yet, in a directory for the service's user only");
}

void s_checkSnapshots(const std::string& directory) try {
  s_requireOwn(directory);
} catch (const std::exception& exception) {
  throw Failure(ExitCode::Configuration, "--snapshot " + directory, exception.what(),
                "make it readable and writable for the user of the service only");
}

void s_checkOptionFile() try {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread
  const char* const file = std::getenv("TSL_DATABASE_OPTION_FILE");
  Database::checkOptions(Database::OptionSource::of(file == nullptr ? "" : file));
} catch (const Exception& exception) {
  throw Failure(ExitCode::Configuration, "TSL_DATABASE_OPTION_FILE", Tool::reasonOf(exception),
                "correct the file, or name another one");
}

void s_checkConfiguration() {
  const std::string directory = Tool::configurationDirectory();
  const std::string right = missingRight(directory);
  if (right.empty()) return;
  throw Failure(ExitCode::Configuration, "the configuration in " + directory, right, "");
}

}  // namespace

std::vector<Failure> faultsOf(const Settings& settings) {
  std::vector<Failure> faults;
  const auto check = [&faults](auto look) {
    try {
      look();
    } catch (const Failure& failure) {
      faults.push_back(failure);
    }
  };
  for (const ListenAddress& address : settings.listen) {
    check([&] { ListenSocket::check(address); });
  }
  if (settings.metrics) check([&] { ListenSocket::check(*settings.metrics); });
  if (!settings.snapshot.empty()) check([&] { s_checkSnapshots(settings.snapshot); });
  if (!settings.countUse.empty()) check([&] { s_checkUse(settings.countUse); });
  check(s_checkOptionFile);
  check(s_checkConfiguration);
  return faults;
}

}  // namespace Tessel::Serve
