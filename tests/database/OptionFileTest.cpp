// OptionFile: reads what the client library reads, whatever the files look like.
#include <mysql.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/Exception.h"
#include "database/OptionFile.h"
#include "support/ScratchFile.h"

namespace Tessel::Database {
namespace {

using testing::AnyOf;
using testing::HasSubstr;

using Values = std::vector<std::string>;

// What counts of host, user, password, CA file and port.
// Of the standard files where `file` is empty. By the client library, after it could not connect.
Values clientValues(const std::string& file) {
  const std::unique_ptr<MYSQL, void (*)(MYSQL*)> mysql(mysql_init(nullptr), &mysql_close);
  if (!file.empty()) mysql_options(mysql.get(), MYSQL_READ_DEFAULT_FILE, file.c_str());
  mysql_options(mysql.get(), MYSQL_READ_DEFAULT_GROUP, s_optionGroup);
  EXPECT_EQ(mysql_real_connect(mysql.get(), "localhost", nullptr, nullptr, nullptr, 0,
                               "/nowhere/s.sock", CLIENT_REMEMBER_OPTIONS),
            nullptr);
  const auto& options = mysql->options;
  Values values;
  for (const char* value : {options.host, options.user, options.password, options.ssl_ca}) {
    values.emplace_back(value != nullptr ? value : "(none)");
  }
  values.push_back(std::to_string(options.port));
  return values;
}

Values ourValues(const std::string& file) {
  const std::vector<Option> options = readOptions(file);
  Values values;
  for (const auto& names : std::vector<std::vector<std::string_view>>{
           {"host", "servername"}, {"user"}, {"password", "passwd"}, {"ssl-ca", "tls-ca"}}) {
    values.push_back(lastValue(options, names).value_or("(none)"));
  }
  // NOLINTNEXTLINE(cert-err34-c): as the client library does
  values.push_back(std::to_string(std::atoi(lastValue(options, {"port"}).value_or("").c_str())));
  return values;
}

class OptionFileTest : public testing::Test {
 protected:
  [[nodiscard]] std::string path(const std::string& name) const {
    return m_file.directory() + "/" + name;
  }
  std::string write(const std::string& name, const std::string& text) const {
    std::ofstream(path(name), std::ios::binary) << text;
    return path(name);
  }
  static std::string faultOf(const std::string& file) {
    try {
      readOptions(file);
    } catch (const Exception& thrown) {
      EXPECT_EQ(thrown.code(), 4);
      EXPECT_STREQ(thrown.file(), "OptionFile");
      return thrown.stringParameter();
    }
    ADD_FAILURE() << "no Exception for " << file;
    return "";
  }

  const Testing::ScratchFile m_file;
};

TEST_F(OptionFileTest, AwkwardFilesAreReadAsTheClientLibraryReadsThem) {
  const std::string start = "[client]\n";
  const std::string longLine(4090, 'x');
  const std::vector<std::string> texts = {
      "host=a\nuser=b\npassword=c\nssl-ca=d\nport=1\n",
      "host = a\n host=\tb \r\n  user  =  c d  \n",
      "host=a\nhost=\nuser=\"\"\npassword=''\n",
      "host='a b'\nuser=\"it's\"\npassword='open\nssl-ca=shut'\nssl-ca='\n",
      "host='a\"\nuser=\" a \"\npassword=a\"b\"\n",
      R"(password=a\nb\tc\rd\be\sf\"g\'h\\i\xj\)",
      "host=\"a\\\"\nuser='\\'\nssl-ca=\\\n",
      "host=a # no comment\nuser=b;c\n#host=x\n;user=y\n  # host=z\n",
      "\"host=a\n'user=b\nhost=c\n",
      "\\x=1\n\"host\"=a\n\\x=1\n'host=b\nhost=c\n",
      "host\nuser\npassword=x\npassword\nssl-ca=y\n",
      "host=a\nhost",
      "host=a\nuser=b\nuser ",
      "servername=a\npasswd=b\ntls_ca=c\n po_rt=4\nport = 5x\nport=' 6'\n",
      "host=a\nservername=b\npassword=a\npasswd=\nSsl-Ca=d\nHOST=c\n",
      "h_ost=a\nssl_ca=a_b\nssl--ca=c\n",
      "=a\n = b\nhost==c\nuser=d=e\n",
      "[mysqld]\nhost=a\n[client]\nuser=b\n[other\t]\nuser=c\n",
      "[client-server]\nhost=a\n[client-mariadb]\nuser=b\n[tsl-address-map]\npassword=c\n",
      "[tsl-address-map]\nhost=a\n[client]\nhost=b\n",
      "[client ]\nhost=a\n[ client]\nhost=b\n[Client]\nhost=c\n[client] x\nuser=d\n",
      "[client]]\nhost=a\n[]\nuser=b\n[[client]\npassword=c\n",
      "host=a\vb\f\nuser=\v\n\vpassword=c\n",
      "host=\xc3\xa9\xa0\nuser=\xff\n\xa0password=c\n",
      std::string("host=a\0b\nuser=c\0\n\0password=d\n", 29),
      "user=" + longLine + "host=a\nhost=b\n",
      "#" + longLine + "xxxhost=a\n",
      "#" + longLine + "xx\nhost=a\n",
      "!x\n!include\n!include" + path("a") + "\n!INCLUDE " + path("a") + "\nhost=x\n",
      "host=x\n!include " + path("a") + "  \nuser=y\n",
      "  !include " + path("a") + "\n[mysqld]\n!include " + path("a") + "\nuser=y\n",
      "!includedir " + m_file.directory() + "\n!includedir /nowhere\n",
      "!include " + path("loop") + "\n",
      "!include\t" + path("a") + "\n!include " + path("a") + " # comment\n",
  };
  write("a", "[client]\nhost=from-a\npassword=from-a\n");
  write("my.cnf", "[client]\nuser=from-directory\n!include " + path("a") + "\n");
  write("loop", "[client]\nhost=from-loop\n!include " + path("loop") + "\nuser=from-loop\n");
  int compared = 0;
  for (const std::string& text : texts) {
    const std::string file = write("options", start + text);
    SCOPED_TRACE(text);
    if (text.find("# comment") != std::string::npos) {
      // The blanks and the comment are part of the name of a file that is not there.
      EXPECT_THAT(faultOf(file), HasSubstr("includes in line 3 '" + path("a") + " # comment'"));
      continue;
    }
    EXPECT_EQ(ourValues(file), clientValues(file));
    ++compared;
  }
  EXPECT_EQ(compared, static_cast<int>(texts.size()) - 1);
}

TEST_F(OptionFileTest, RandomFilesAreReadAsTheClientLibraryReadsThem) {
  const std::string other = write("a", "[client]\nhost=from-a\n");
  const Values pieces = {"\n",
                         "\n",
                         "\n[client]\n",
                         "\n[mysqld]\n",
                         "[",
                         "]",
                         "=",
                         "=",
                         " ",
                         "\t",
                         "\r",
                         "\f",
                         "'",
                         "\"",
                         "\\",
                         "\\n",
                         "\\s",
                         "#",
                         ";",
                         "!",
                         "\nhost=",
                         "\nuser",
                         "password",
                         "\npassword = ",
                         "\nssl_ca=",
                         "tls-ca",
                         "\nport=",
                         "servername",
                         "a",
                         "b c",
                         "7",
                         std::string(1, '\0'),
                         "_",
                         "\xc3",
                         std::string(2000, 'x'),
                         "\n!include " + other + "\n"};
  const unsigned int seed = std::random_device()();
  std::mt19937 random(seed);
  int compared = 0;
  for (int i = 0; i < 200; ++i) {
    std::string text = "[client]\n";
    for (std::size_t left = random() % 30; left > 0; --left)
      text += pieces[random() % pieces.size()];
    const std::string file = write("options", text);
    SCOPED_TRACE("seed " + std::to_string(seed) + ", file " + std::to_string(i) + ":\n" + text);
    Values ours;
    try {
      ours = ourValues(file);
    } catch (const Exception& refusal) {
      EXPECT_THAT(refusal.stringParameter(),
                  AnyOf(HasSubstr("is broken"), HasSubstr("includes in")));
      continue;
    }
    ASSERT_EQ(ours, clientValues(file));
    ++compared;
  }
  EXPECT_GT(compared, 40);
}

TEST_F(OptionFileTest, AnOptionKnowsItsFileAndLine) {
  const std::string other = write("other", "[client]\n\nuser=x\n");
  const std::string file =
      write("options", "# first\n[client]\nssl_ca=a\n!include " + other + "\nssl-mode\nport=1\n");
  const std::vector<Option> got = readOptions(file);
  ASSERT_EQ(got.size(), 4U);
  EXPECT_EQ(got[0].key, "ssl-ca");
  EXPECT_EQ(got[0].file + std::to_string(got[0].line), file + "3");
  EXPECT_EQ(got[1].file + std::to_string(got[1].line), other + "3");
  EXPECT_EQ(got[2].key, "ssl-mode\n");
  EXPECT_FALSE(got[2].value);
  EXPECT_EQ(got[2].line, 5);
  EXPECT_EQ(got[3].value, "1");
}

// The client library would go on without what they say.
TEST_F(OptionFileTest, FilesThatCouldHideAnOptionAreRefused) {
  EXPECT_THAT(faultOf(path("missing")), HasSubstr("missing' cannot be read (No such file"));
  const std::string broken = write("broken", "[client]\nuser=x\n[mysqld\nssl-ca=y\n");
  EXPECT_THAT(faultOf(broken), HasSubstr("is broken in line 3: the name of a group has no ']'"));
  EXPECT_THAT(faultOf(write("a", "[client]\n!include " + broken + "\n")),
              HasSubstr("broken' is broken in line 3"));
  EXPECT_THAT(faultOf(write("b", "[client]\n!include " + path("missing") + "\n")),
              HasSubstr("b' includes in line 2 '" + path("missing") +
                        "', which cannot be read (No such file or directory)"));
  EXPECT_THAT(
      faultOf(write("c", "[client]\n!include " + path("c") + "\n!include " + path("c") + "\n")),
      HasSubstr("include each other without end"));
}

TEST_F(OptionFileTest, AnEmptyValueUnsetsAnOption) {
  EXPECT_EQ(lastValue({{"host", "a", "", 1}, {"servername", "", "", 2}}, {"host", "servername"}),
            std::nullopt);
  EXPECT_EQ(lastValue({{"host", "a", "", 1}, {"servername", "", "", 2}}, {"host"}), "a");
  EXPECT_EQ(lastValue({{"host", "a", "", 1}, {"host", {}, "", 2}}, {"host"}), std::nullopt);
  EXPECT_EQ(lastValue({}, {"host"}), std::nullopt);
}

// In a process of its own: the client library looks at part of the environment only once.
using Environment = std::vector<std::pair<const char*, std::string>>;
bool s_standardFilesAgree(const Environment& environment, const std::string& wantedHost) {
  // NOLINTBEGIN(concurrency-mt-unsafe): one thread
  for (const char* name : {"MARIADB_HOME", "MYSQL_HOME", "HOME"}) unsetenv(name);
  for (const auto& [name, value] : environment) setenv(name, value.c_str(), 1);
  // NOLINTEND(concurrency-mt-unsafe)
  const Values ours = ourValues("");
  return ours == clientValues("") && ours.at(0) == wantedHost;
}

TEST_F(OptionFileTest, TheStandardFilesAreThoseOfTheClientLibrary) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const std::string name : {"maria", "mysql", "home"}) {
    std::filesystem::create_directory(path(name));
    write(name + (name == "home" ? "/.my.cnf" : "/my.cnf"), "[client]\nhost=" + name + "\n");
  }
  // An empty name of a file means the standard ones once more.
  std::filesystem::create_directory(path("again"));
  write("again/.my.cnf", "[client]\nhost=again\n!includedir \nhost=x\n");
  const std::vector<std::pair<Environment, std::string>> cases = {
      {{}, "(none)"},
      {{{"HOME", path("home")}}, "home"},
      {{{"MYSQL_HOME", path("mysql")}}, "mysql"},
      {{{"MYSQL_HOME", path("mysql")}, {"MARIADB_HOME", path("maria")}}, "maria"},
      {{{"MYSQL_HOME", path("mysql")}, {"MARIADB_HOME", "/nowhere"}}, "(none)"},
      {{{"MYSQL_HOME", path("mysql")}, {"HOME", path("home")}}, "home"},
      {{{"MARIADB_HOME", path("home")}, {"HOME", path("maria")}}, "(none)"},
      {{{"HOME", path("again")}}, "x"},
  };
  for (const auto& [environment, want] : cases) {
    EXPECT_EXIT(_exit(s_standardFilesAgree(environment, want) ? 0 : 1), testing::ExitedWithCode(0),
                "")
        << want;
  }
}

}  // namespace
}  // namespace Tessel::Database
