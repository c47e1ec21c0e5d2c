// OptionSource: which option files count, and that a wrong one never leads to another server.
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "database/DatabaseTest.h"

namespace Tessel::Database {
namespace {

using testing::HasSubstr;

class OptionSourceTest : public DatabaseTest {
 protected:
  static Exception failure() {
    try {
      Connection connection("");
    } catch (const Exception& thrown) {
      return thrown;
    }
    ADD_FAILURE() << "connected";
    return {"", 0, nullptr, 0};
  }
  static std::string goodOptions() {
    return "[client]\nsocket=" + server().socketPath() + "\nuser=" + callerName() + "\n";
  }
};

TEST_F(OptionSourceTest, AMissingNamedFileIsAnErrorThatSaysWhatToDo) {
  Testing::TestServer::OptionFile options(server(), goodOptions());
  std::filesystem::remove(options.path());
  const Exception got = failure();
  EXPECT_EQ(got.code(), 4);
  EXPECT_EQ(got.context(), "Database::Connection");
  EXPECT_STREQ(got.file(), "OptionSource");
  EXPECT_GT(got.line(), 1);
  EXPECT_THAT(got.stringParameter(), HasSubstr(options.path()));
  EXPECT_THAT(got.stringParameter(), HasSubstr("unset it to use the standard option files"));
}

TEST_F(OptionSourceTest, ADirectoryInPlaceOfTheFileIsAnError) {
  Testing::TestServer::OptionFile options(server(), "");
  std::filesystem::remove(options.path());
  std::filesystem::create_directory(options.path());
  EXPECT_THAT(failure().stringParameter(), HasSubstr("is not a regular file"));
}

TEST_F(OptionSourceTest, AFileThatEveryoneMayWriteIsRefused) {
  Testing::TestServer::OptionFile options(server(), goodOptions());
  chmod(options.path().c_str(), 0666);
  EXPECT_THAT(failure().stringParameter(), HasSubstr("chmod o-w"));
}

TEST_F(OptionSourceTest, BothGroupsOfTheNamedFileAreReadAndTheLaterOneCounts) {
  Testing::TestServer::OptionFile options(
      server(), "[client]\nsocket=/nowhere\nuser=" + callerName() +
                    "\n[tsl-address-map]\nsocket=" + server().socketPath() + "\n");
  Connection connection(s_name);
  EXPECT_EQ(value(connection, "select database()"), s_name);
}

TEST_F(OptionSourceTest, WithoutTheVariableTheStandardFilesOfTheHomeDirectoryAreRead) {
  const std::string home = server().directory() + "/home";
  std::filesystem::create_directory(home);
  Testing::TestServer::OptionFile options(server(), goodOptions());
  std::filesystem::copy_file(options.path(), home + "/.my.cnf");
  const char* before = std::getenv("HOME");  // NOLINT(concurrency-mt-unsafe): no other threads here
  const std::string kept = before != nullptr ? before : "";
  const std::string& file = options.path();
  setenv("HOME", home.c_str(), 1);       // NOLINT(concurrency-mt-unsafe): as above
  unsetenv("TSL_DATABASE_OPTION_FILE");  // NOLINT(concurrency-mt-unsafe): as above
  {
    Connection connection(s_name);
    EXPECT_EQ(connection.peerAddress().host(), server().socketPath());
  }
  setenv("HOME", kept.c_str(), 1);                      // NOLINT(concurrency-mt-unsafe): as above
  setenv("TSL_DATABASE_OPTION_FILE", file.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): as above
}

}  // namespace
}  // namespace Tessel::Database
