// OptionSource: which option files count, and that a wrong one never leads to another server.
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

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

// The client library would use the default server instead.
TEST_F(OptionSourceTest, AFileWithoutAGroupThatIsReadOrWithABrokenOneIsRefused) {
  for (const auto& [text, want] : std::vector<std::pair<std::string, std::string>>{
           {"", "has no group [client] or [tsl-address-map]"},
           {"# [client]\n; [client]\n", "has no group"},
           {"[mysqld]\nsocket=x\n", "has no group"},
           {"[ client]\nsocket=x\n", "has no group"},
           {"[CLIENT]\nsocket=x\n", "has no group"},
           {"[client\nsocket=x\n", "is broken in line 1: the name of a group has no ']'"},
           {goodOptions() + "\n  [mysqld\n", "is broken in line 5: the name of a group has no ']'"},
           {"\nsocket=x\n" + goodOptions(), "is broken in line 2: an option before the first"}}) {
    Testing::TestServer::OptionFile options(server(), text);
    const std::string got = failure().stringParameter();
    EXPECT_THAT(got, HasSubstr("named by TSL_DATABASE_OPTION_FILE, " + want)) << text;
  }
}

TEST_F(OptionSourceTest, EachGroupThatTheClientLibraryReadsWillDo) {
  for (const std::string group : {"client-server", "client-mariadb ", "tsl-address-map"}) {
    Testing::TestServer::OptionFile options(
        server(), "  [" + group + "] # comment" + goodOptions().substr(8));
    EXPECT_EQ(Connection("").peerAddress().host(), server().socketPath()) << group;
  }
  Testing::TestServer::OptionFile named(server(), goodOptions());
  Testing::TestServer::OptionFile options(server(), "!include " + named.path() + "\n");
  EXPECT_EQ(Connection("").peerAddress().host(), server().socketPath());
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
