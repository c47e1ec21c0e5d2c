// What the tests of the configuration share: a directory of their own, child processes, and raw
// access to the environment to damage it.
#ifndef TSL_TESTS_CMF_CONFIGURATIONTEST_H
#define TSL_TESTS_CMF_CONFIGURATIONTEST_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/Exception.h"
#include "cmf/MailUser.h"
#include "cmf/StorageFormat.h"
#include "cmf/TableQuery.h"

namespace Tessel::CMF {

using UserQuery = TableQuery<__aps_mail_user, s_mailUserTable>;

// A test with an empty directory, removed afterwards. TSL_CMF_PATH names a directory in it that
// does not exist yet.
class ConfigurationTest : public testing::Test {
 public:
  ConfigurationTest();
  ~ConfigurationTest() override;
  ConfigurationTest(const ConfigurationTest&) = delete;
  ConfigurationTest& operator=(const ConfigurationTest&) = delete;

  [[nodiscard]] const std::string& directory() const { return m_directory; }
  // What TSL_CMF_PATH names at first.
  [[nodiscard]] std::string path() const { return m_directory + "/cmf"; }

 private:
  std::string m_directory;
};

// Sets an environment variable, or removes it when `value` is empty.
void setVariable(const char* name, const std::string& value);

// A child process that runs `body`. Its exit status is 0 when nothing threw and no expectation
// failed. It may be killed.
class Child {
 public:
  explicit Child(const std::function<void()>& body);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  [[nodiscard]] pid_t pid() const { return m_pid; }
  // Ends it at once, wherever it is.
  void kill();
  // Waits for its end: its exit status, or minus the signal that ended it.
  int wait();

 private:
  pid_t m_pid;
};

// Runs `body` in a child process and returns its exit status, as `Child::wait`.
int inChild(const std::function<void()>& body);
// The same, without the rights of root.
int inChildWithoutPrivileges(const std::function<void()>& body);

// One message from process to process.
class Signal {
 public:
  Signal();
  ~Signal();
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;

  void send() const;
  void await() const;

 private:
  int m_ends[2];
};

// Adds `domain` with mailboxes named `users` in one transaction and returns its identifier.
std::uint32_t addDomain(const std::string& domain, const std::vector<std::string>& users);
// "user0000000" and so on, in ascending order.
std::vector<std::string> manyUsers(int count);
// The names in the mail-user table of a domain, in order.
std::vector<std::string> usersOf(std::uint32_t domainId);
// The same for the domain of this name, which must be there.
std::vector<std::string> usersOf(const std::string& domain);

// Stores `value` under `key` behind the library's back, from a child process.
void putRaw(const std::string& path, const std::string& key, const std::string& value);
// The process numbers in the table of readers.
std::vector<pid_t> readers(const std::string& path);
std::string text(const Key& key);

// The detail of the Exception, code 4, that `call` throws; fails the test when it throws none.
std::string failureOf(const std::function<void()>& call);

}  // namespace Tessel::CMF

#endif
