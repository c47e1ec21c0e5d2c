// ClientOptions: sets exactly what the client library sets when it reads the file itself.
#include <dlfcn.h>
#include <mysql.h>

#include <array>
#include <cstddef>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/Exception.h"
#include "database/ClientOptions.h"
#include "support/ScratchFile.h"

namespace Tessel::Database {
namespace {

using testing::HasSubstr;
using testing::IsSubsetOf;

using Client = std::unique_ptr<MYSQL, void (*)(MYSQL*)>;

// The client library forgets to free this one.
void s_close(MYSQL* mysql) {
  mysql_options(mysql, MYSQL_SERVER_PUBLIC_KEY, nullptr);
  mysql_close(mysql);
}

Client s_client() {
  Client client{mysql_init(nullptr), &s_close};
  // This one counts for the whole process.
  const std::size_t bufferLength = 8192;
  mysql_options(client.get(), MYSQL_OPT_NET_BUFFER_LENGTH, &bufferLength);
  return client;
}

// Every option of `mysql` that can be seen, as text.
std::string s_settings(MYSQL* mysql) {
  const auto& options = mysql->options;
  std::ostringstream text;
  const auto show = [&text](const char* value) { text << (value ? value : "(none)") << '\n'; };
  for (const char* value :
       {options.host, options.user, options.password, options.unix_socket, options.db,
        options.charset_dir, options.charset_name, options.ssl_key, options.ssl_cert,
        options.ssl_ca, options.ssl_capath, options.ssl_cipher, options.bind_address}) {
    show(value);
  }
  text << options.connect_timeout << ' ' << options.read_timeout << ' ' << options.write_timeout
       << ' ' << options.port << ' ' << options.protocol << ' '
       << (options.client_flag & ~static_cast<unsigned long>(CLIENT_LOCAL_FILES)) << ' '
       << options.max_allowed_packet << ' ' << int{options.use_ssl} << int{options.compress}
       << int{options.named_pipe} << int{options.reconnect} << int{options.secure_auth}
       << int{options.report_data_truncation} << '\n';
  for (const mysql_option number :
       {MYSQL_PLUGIN_DIR, MYSQL_DEFAULT_AUTH, MYSQL_OPT_SSL_CRL, MYSQL_OPT_SSL_CRLPATH,
        MYSQL_SERVER_PUBLIC_KEY, MARIADB_OPT_SSL_FP, MARIADB_OPT_SSL_FP_LIST,
        MARIADB_OPT_TLS_PASSPHRASE, MARIADB_OPT_TLS_VERSION, MARIADB_OPT_RESTRICTED_AUTH}) {
    const char* value = nullptr;
    if (mysql_get_optionv(mysql, number, &value) == 0) show(value);
  }
  for (const mysql_option number :
       {MYSQL_OPT_SSL_VERIFY_SERVER_CERT, MYSQL_OPT_ZSTD_COMPRESSION_LEVEL}) {
    char value = 0;
    mysql_get_optionv(mysql, number, &value);
    text << int{value} << '\n';
  }
  unsigned long size = 0;
  mysql_get_optionv(mysql, MYSQL_OPT_NET_BUFFER_LENGTH, &size);
  char** commands = nullptr;
  unsigned int count = 0;
  mysql_get_optionv(mysql, MYSQL_INIT_COMMAND, &commands, &count);
  text << size << '\n' << count << '\n';
  for (unsigned int i = 0; i < count; ++i) show(commands[i]);
  return text.str();
}

// What the client library sets when it reads `file`, and what we set.
std::string s_theirs(const std::string& file) {
  const Client client = s_client();
  mysql_options(client.get(), MYSQL_READ_DEFAULT_FILE, file.c_str());
  mysql_options(client.get(), MYSQL_READ_DEFAULT_GROUP, s_optionGroup);
  EXPECT_EQ(mysql_real_connect(client.get(), "localhost", nullptr, nullptr, nullptr, 0,
                               "/nowhere/s.sock", CLIENT_REMEMBER_OPTIONS),
            nullptr);
  return s_settings(client.get());
}

std::string s_ours(const std::string& file) {
  const Client client = s_client();
  applyOptions(client.get(), readOptions(file));
  return s_settings(client.get());
}

// Every text in the client library that could be the key of an option: it knows none with '_'.
std::set<std::string> s_possibleKeys() {
  Dl_info library{};
  EXPECT_NE(dladdr(reinterpret_cast<void*>(&mysql_get_client_version), &library), 0);
  std::ifstream file(library.dli_fname, std::ios::binary);
  std::set<std::string> keys;
  std::string text;
  for (char letter = '\0'; file.get(letter);) {
    if ((letter >= 'a' && letter <= 'z') || letter == '-') {
      text += letter;
      continue;
    }
    // The linker may keep a key as the end of a longer one only.
    for (std::size_t start = 0; letter == '\0' && start + 2 <= text.size(); ++start) {
      if (start == 0 || text[start - 1] == '-') keys.insert(text.substr(start));
    }
    text.clear();
  }
  return keys;
}

class ClientOptionsTest : public testing::Test {
 protected:
  [[nodiscard]] std::string write(const std::string& text) const {
    m_file.write("[client]\n" + text);
    return m_file.path();
  }
  const Testing::ScratchFile m_file;
};

TEST_F(ClientOptionsTest, EveryKeyThatTheClientLibraryMayKnowHasTheSameEffect) {
  const std::set<std::string> keys = s_possibleKeys();
  EXPECT_THAT((std::set<std::string>{"host", "servername", "ssl-fp-list", "tls-verify-peer"}),
              IsSubsetOf(keys));
  const std::string none = s_ours(write(""));
  ASSERT_EQ(none, s_theirs(m_file.path()));
  int known = 0;
  for (const std::string& key : keys) {
    // Two that it does not survive or that mean something else, and one that is always off.
    if (key == "disable-local-infile" || key == "connection" || key == "local-infile") continue;
    const std::string ours = s_ours(write(key + "=7"));
    EXPECT_EQ(ours, s_theirs(m_file.path())) << key;
    if (ours == none) continue;
    ++known;
    EXPECT_NE(optionName(key), "") << key;
  }
  EXPECT_GT(known, 50);
  s_client();
}

// Only at the end of a file does the client library see one.
TEST_F(ClientOptionsTest, AKnownKeyWithoutAValueUnsetsTheOption) {
  for (const std::string key : {"host", "port", "compress", "ssl-ca", "ssl-fp", "reconnect"}) {
    for (const std::string value : {"1", "x", "", "-1", " 256", "'5'", "99999999999"}) {
      for (const std::string& end : {std::string("\n"), "\n" + key}) {
        const std::string ours = s_ours(write(key + "=" + value + end));
        EXPECT_EQ(ours, s_theirs(m_file.path())) << m_file.text();
      }
    }
  }
}

TEST_F(ClientOptionsTest, WhatTheClientLibraryCannotTakeIsRefused) {
  for (const std::string text : {"init-command=\n", "init_command", "connection=host=a\n",
                                 "host=a;user=b\n", "servername=x://y\n"}) {
    try {
      s_ours(write("user=a\n" + text));
      ADD_FAILURE() << text;
    } catch (const Exception& thrown) {
      EXPECT_EQ(thrown.code(), 4);
      EXPECT_STREQ(thrown.file(), "ClientOptions");
      EXPECT_THAT(thrown.stringParameter(),
                  HasSubstr(m_file.path() + "', line 3: '" + text.substr(0, 4)));
    }
  }
}

}  // namespace
}  // namespace Tessel::Database
