// TlsSession: who asks for encryption gets it from the right server, or no connection at all.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/Exception.h"
#include "database/Connection.h"
#include "database/DatabaseTest.h"
#include "database/Encryption.h"
#include "database/Error.h"
#include "local/LocalServer.h"
#include "local/ServerProcess.h"
#include "support/Certificates.h"
#include "support/GeneralLog.h"
#include "support/SocketRelay.h"
#include "support/TestServer.h"

namespace Tessel::Database {
namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using Texts = std::vector<std::string>;

constexpr char s_password[] = "sEcret-oF-tHe-tests";

std::string s_withoutColons(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), ':'), text.end());
  return text;
}

// A port of 127.0.0.1 that is free now.
std::string s_freePort() {
  const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(bind(probe, reinterpret_cast<const sockaddr*>(&address), size), 0);
  getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
  close(probe);
  return std::to_string(ntohs(address.sin_port));
}

// The server's part of the agreement to encrypt, in its greeting: what follows the version has a
// fixed place.
void s_takeEncryptionAway(std::string& greeting) {
  const std::size_t version = greeting.find('\0', 5);
  const std::size_t capabilities = version + 1 + 4 + 8 + 1;
  ASSERT_LT(capabilities + 1, greeting.size());
  constexpr char s_encryption = 0x08;
  ASSERT_NE(greeting[capabilities + 1] & s_encryption, 0);
  greeting[capabilities + 1] = static_cast<char>(greeting[capabilities + 1] & ~s_encryption);
}

// The same, with a way to log in that sends the password itself when the client library believes
// that the connection is secure.
void s_takeEncryptionAwayAndAskForThePassword(std::string& greeting) {
  s_takeEncryptionAway(greeting);
  const std::string method = "mysql_native_password";
  const std::size_t at = greeting.find(method);
  ASSERT_NE(at, std::string::npos);
  greeting.replace(at, method.size(), "caching_sha2_password");
}

// A server that speaks TLS, on a port of 127.0.0.1 and on its socket, with users of every kind.
class TlsSessionTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    s_files = std::make_unique<Testing::Certificates>();
    s_port = s_freePort();
    copyCertificate("good");
    s_server = std::make_unique<Testing::TestServer>(std::vector<std::string>{
        "--skip-networking=0", "--bind-address=127.0.0.1", "--port=" + s_port,
        "--ssl-ca=" + s_files->path("ca.pem"), "--ssl-cert=" + s_files->path("server.pem"),
        "--ssl-key=" + s_files->path("server.key"), "--plugin-load-add=auth_ed25519"});
    for (const auto& [name, method] : users()) {
      s_server->sql("create user " + name + "@'%' identified via " + method);
    }
  }
  static void TearDownTestSuite() {
    s_server.reset();
    s_files.reset();
  }
  void SetUp() override { useCertificate("good"); }

  static std::vector<std::pair<std::string, std::string>> users() {
    const std::string password = " using password('" + std::string(s_password) + "')";
    return {{"tls_native", "mysql_native_password" + password}, {"tls_ed", "ed25519" + password}};
  }
  static void copyCertificate(const std::string& name) {
    std::filesystem::copy_file(s_files->path(name + ".pem"), s_files->path("server.pem"),
                               std::filesystem::copy_options::overwrite_existing);
  }
  static void useCertificate(const std::string& name) {
    copyCertificate(name);
    s_server->sql("flush ssl");
  }
  static std::string file(const std::string& key, const std::string& name) {
    return key + "=" + s_files->path(name) + "\n";
  }
  static std::string authority() { return file("ssl-ca", "ca.pem"); }

  // The relay with `forger` before the server.
  static std::unique_ptr<Testing::SocketRelay> relay(Testing::SocketRelay::Forger forger = {}) {
    return std::make_unique<Testing::SocketRelay>(Texts{"127.0.0.1:" + s_port}, std::move(forger));
  }
  // What comes of connecting to `relay` with `lines` in the option file: the cipher, or why not.
  static std::string attempt(const Testing::SocketRelay& relay, const std::string& lines,
                             const std::string& user = "tls_native") {
    const Testing::TestServer::OptionFile options(
        *s_server, "[client]\nhost=" + relay.path() + "\nuser=" + user +
                       "\npassword=" + s_password + "\n" + lines);
    try {
      Connection connection("");
      return run(connection, "show status like 'Ssl_cipher'").at(0).at(1);
    } catch (const Exception& failure) {
      return failure.what();
    }
  }
  // Checks that `lines` lead to no connection, for a reason that has `why` in it, and that nothing
  // of worth was said before that.
  static void expectNone(const std::string& lines, const std::string& why,
                         Testing::SocketRelay::Forger forger = {}) {
    SCOPED_TRACE(lines);
    Testing::GeneralLog log(*s_server);
    log.mark();
    const auto between = relay(std::move(forger));
    EXPECT_THAT(attempt(*between, lines), HasSubstr(why));
    EXPECT_EQ(between->connections(), 1);
    // The client's wish to encrypt is all that it may say in clear.
    EXPECT_THAT(between->said(), AllOf(Not(HasSubstr("tls_native")), Not(HasSubstr(s_password))));
    EXPECT_THAT(between->statements(), IsEmpty());
    for (const auto& entry : log.entriesSince()) {
      EXPECT_THAT(entry.text, Not(HasSubstr("tls_native"))) << entry.command;
    }
  }

  static std::unique_ptr<Testing::Certificates> s_files;
  static std::unique_ptr<Testing::TestServer> s_server;
  static std::string s_port;
};

std::unique_ptr<Testing::Certificates> TlsSessionTest::s_files;
std::unique_ptr<Testing::TestServer> TlsSessionTest::s_server;
std::string TlsSessionTest::s_port;

constexpr char s_untrusted[] = "self-signed certificate in certificate chain";

TEST_F(TlsSessionTest, EveryKeyAloneEncryptsAndTheRightServerIsAccepted) {
  const std::string print = s_files->fingerprint("good");
  std::ofstream(s_files->path("prints")) << "00\n" << print << "\r\n";
  for (const std::string& lines : Texts{
           authority(), "tls-ca=" + s_files->path("ca.pem") + "\n", authority() + "ssl-enforce=1\n",
           authority() + "ssl-verify-server-cert=1\n", authority() + "tls-version=TLSv1.2\n",
           authority() + file("ssl-crl", "crl.pem"), "ssl-fp=" + print + "\n",
           "tls-fp=" + s_withoutColons(print) + "\n", file("ssl-fplist", "prints"),
           "ssl-verify-server-cert=0\n", authority() + "ssl-verify-server-cert=0\n",
           authority() + "ssl-cipher=ECDHE-ECDSA-AES128-GCM-SHA256\ntls-version=TLSv1.2\n"}) {
    const auto between = relay();
    EXPECT_THAT(attempt(*between, lines), AnyOf(HasSubstr("AES"), HasSubstr("CHACHA"))) << lines;
    EXPECT_THAT(between->said(), Not(HasSubstr("tls_native")));
  }
}

TEST_F(TlsSessionTest, WithoutAnyKeyNothingChanges) {
  const auto between = relay();
  EXPECT_EQ(attempt(*between, ""), "");
  EXPECT_THAT(between->said(), HasSubstr("tls_native"));
}

TEST_F(TlsSessionTest, AServerThatCannotShowWhoItIsIsRefusedBeforeTheLogin) {
  // These trust the system's authorities, not ours.
  for (const std::string lines :
       {"ssl-enforce=1\n", "ssl-verify-server-cert=1\n", "tls-version=TLSv1.3\n"}) {
    expectNone(lines, s_untrusted);
  }
  expectNone(file("ssl-ca", "other.pem"), s_untrusted);
  expectNone(file("ssl-ca", "other.pem") + "ssl-verify-server-cert=0\n", s_untrusted);
  const std::string wrong = "ssl-fp=" + std::string(40, '0') + "\n";
  expectNone(wrong, "Fingerprint verification of server certificate failed");
  expectNone(wrong + authority(), "Fingerprint verification");
  expectNone(wrong + "ssl-verify-server-cert=0\n", "Fingerprint verification");

  useCertificate("wrong-name");
  expectNone(authority(), "Validation of SSL server certificate failed");
  const auto anyName = relay();
  EXPECT_THAT(attempt(*anyName, authority() + "ssl-verify-server-cert=0\n"), HasSubstr("TLS_"));

  useCertificate("expired");
  expectNone(authority(), "certificate has expired");
  expectNone(authority() + "ssl-verify-server-cert=0\n", "certificate has expired");

  useCertificate("revoked");
  const std::string revoked = file("ssl-crl", "crl.pem");
  expectNone(authority() + revoked, "certificate revoked");
  expectNone(authority() + revoked + "ssl-verify-server-cert=0\n", "certificate revoked");

  useCertificate("self-signed");
  expectNone(authority(), "self-signed certificate");
  expectNone("ssl-verify-server-cert=1\n", "self-signed certificate");
  const auto known = relay();
  for (const std::string& lines : Texts{"ssl-fp=" + s_files->fingerprint("self-signed") + "\n",
                                        file("ssl-ca", "self-signed.pem")}) {
    EXPECT_THAT(attempt(*known, lines), HasSubstr("TLS_")) << lines;
  }
}

TEST_F(TlsSessionTest, WhereTlsIsTakenAwayNothingIsSaid) {
  const std::string print = "ssl-fp=" + s_files->fingerprint("good") + "\n";
  for (const std::string& lines :
       Texts{authority(), "ssl-enforce=1\n", print, authority() + print, "tls-version=TLSv1.3\n",
             authority() + file("ssl-crl", "crl.pem"), "ssl-verify-server-cert=0\n",
             authority() + "ssl-verify-server-cert=0\n",
             file("ssl-cert", "client.pem") + file("ssl-key", "client.key")}) {
    for (auto* forger : {&s_takeEncryptionAway, &s_takeEncryptionAwayAndAskForThePassword}) {
      SCOPED_TRACE(lines);
      const auto between = relay(forger);
      EXPECT_THAT(attempt(*between, lines), HasSubstr("SSL is required, but the server does not"));
      EXPECT_EQ(between->connections(), 1);
      EXPECT_EQ(between->said(), "");
    }
  }
  // Who names no key talks to that server as before.
  const auto between = relay(&s_takeEncryptionAway);
  EXPECT_EQ(attempt(*between, ""), "");
}

TEST_F(TlsSessionTest, AServerWithoutTlsIsRefused) {
  // The same server, started without its certificate.
  s_server->stop();
  LocalServer plain(s_server->directory() + "/s");
  LocalServer::Options start;
  start.arguments = {"--innodb-log-file-size=8M", "--skip-networking=0", "--bind-address=127.0.0.1",
                     "--port=" + s_port, "--plugin-load-add=auth_ed25519"};
  plain.start(start);
  for (const std::string& lines : Texts{authority(), "ssl-verify-server-cert=0\n"}) {
    const auto between = relay();
    EXPECT_THAT(attempt(*between, lines), HasSubstr("SSL is required, but the server does not"));
    EXPECT_EQ(between->connections(), 1);
    EXPECT_EQ(between->said(), "");
  }
  EXPECT_EQ(attempt(*relay(), ""), "");
  plain.stop();
  s_server->restart();
}

TEST_F(TlsSessionTest, OfSeveralHostsTheFirstThatShowsWhoItIsIsUsed) {
  const auto stripped = relay(&s_takeEncryptionAway);
  const auto good = relay();
  const Testing::TestServer::OptionFile options(
      *s_server, "[client]\nhost=" + stripped->path() + "," + good->path() +
                     "\nuser=tls_native\npassword=" + s_password + "\n" + authority());
  for (int i = 0; i < 3; ++i) {
    EXPECT_THAT(Connection("").encryption()->cipher, HasSubstr("TLS_"));
  }
  EXPECT_EQ(good->connections(), 3);
  EXPECT_GE(stripped->connections(), 1);
  EXPECT_EQ(stripped->said(), "");
}

TEST_F(TlsSessionTest, AServerThatFallsSilentBeforeTheEncryptionIsLeftWithTheConnectTimeout) {
  std::unique_ptr<Testing::SocketRelay> between;
  between = relay([&between](std::string&) { between->hold(true); });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_THAT(attempt(*between, authority() + "connect-timeout=1\n"), HasSubstr("2026"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
  EXPECT_THAT(between->said(), Not(HasSubstr("tls_native")));
}

// What follows the greeting unencrypted may come from anybody.
TEST_F(TlsSessionTest, AnswersThatWerePutBehindTheGreetingAreNotTaken) {
  const std::string ok{"\x07\0\0\x03\0\0\0\x02\0\0\0", 11};
  const std::string next{"\x07\0\0\x01\0\0\0\x02\0\0\0", 11};
  for (int more = 0; more < 4; ++more) {
    const auto between = relay([&](std::string& greeting) {
      greeting += ok;
      for (int i = 0; i < more; ++i) greeting += next;
    });
    EXPECT_THAT(attempt(*between, authority()),
                HasSubstr("The first answer on the encrypted connection is not the server's"))
        << more;
    EXPECT_THAT(between->said(), Not(HasSubstr("tls_native")));
  }
}

TEST_F(TlsSessionTest, EveryKindOfUserLogsInEncryptedAndNeverInClear) {
  for (const auto& [user, method] : users()) {
    const auto open = relay();
    EXPECT_THAT(attempt(*open, authority(), user), HasSubstr("TLS_")) << method;
    EXPECT_THAT(open->said(), Not(HasSubstr(user)));
    const auto stripped = relay(&s_takeEncryptionAway);
    EXPECT_THAT(attempt(*stripped, authority(), user), HasSubstr("SSL is required")) << method;
    EXPECT_EQ(stripped->said(), "");
  }
}

TEST_F(TlsSessionTest, AUserOfTheUnixSocketNeedsNoEncryptionThereAndHasNoWayInElsewhere) {
  const std::string user = callerName();
  for (const std::string& lines :
       Texts{"", authority(), "ssl-verify-server-cert=1\n", "ssl-mode=REQUIRED\n",
             "ssl-fp=" + std::string(40, '0') + "\n"}) {
    const Testing::TestServer::OptionFile options(
        *s_server, "[client]\nsocket=" + s_server->socketPath() + "\nuser=" + user + "\n" + lines);
    EXPECT_NO_THROW(Connection("")) << lines;
  }
  s_server->sql("create or replace user tls_socket@'%' identified via unix_socket");
  const auto between = relay();
  EXPECT_THAT(attempt(*between, authority(), "tls_socket"), HasSubstr("Access denied"));
  EXPECT_THAT(between->said(), Not(HasSubstr("tls_socket")));
}

TEST_F(TlsSessionTest, AClientCertificateIsShown) {
  s_server->sql("create or replace user tls_x509@'%' identified by '" + std::string(s_password) +
                "' require subject '/CN=client'");
  const std::string own = file("ssl-cert", "client.pem") + file("ssl-key", "client.key");
  const auto between = relay();
  EXPECT_THAT(attempt(*between, authority(), "tls_x509"), HasSubstr("Access denied"));
  EXPECT_THAT(attempt(*between, authority() + own, "tls_x509"), HasSubstr("TLS_"));
}

TEST_F(TlsSessionTest, AConnectionSaysHowItIsEncryptedAndWithWhom) {
  const std::string print = "ssl-fp=" + s_files->fingerprint("good") + "\n";
  const auto between = relay();
  const auto encryption = [&](const std::string& lines) {
    const Testing::TestServer::OptionFile options(
        *s_server, "[client]\nhost=" + between->path() +
                       "\nuser=tls_native\npassword=" + s_password + "\n" + lines);
    return Connection("").encryption();
  };
  EXPECT_EQ(encryption(""), std::nullopt);
  for (const auto& [lines, want] : std::vector<std::pair<std::string, Encryption::Check>>{
           {authority(), Encryption::Check::Name},
           {authority() + "ssl-verify-server-cert=1\n" + print, Encryption::Check::Name},
           {print, Encryption::Check::Fingerprint},
           {authority() + print, Encryption::Check::Fingerprint},
           {authority() + "ssl-verify-server-cert=0\n", Encryption::Check::Authority},
           {"ssl-verify-server-cert=0\n", Encryption::Check::None}}) {
    SCOPED_TRACE(lines);
    const auto got = encryption(lines);
    ASSERT_TRUE(got);
    EXPECT_EQ(got->check, want);
    EXPECT_EQ(got->version, "TLSv1.3");
    EXPECT_THAT(got->cipher, testing::StartsWith("TLS_"));
    EXPECT_EQ(got->subject, "CN=db server,O=Test");
  }
  EXPECT_EQ(encryption(authority() + "tls-version=TLSv1.2\n")->version, "TLSv1.2");

  // Over a Unix socket, if the server offers it.
  const std::string local =
      "[client]\nsocket=" + s_server->socketPath() + "\nuser=" + callerName() + "\n";
  const Testing::TestServer::OptionFile options(*s_server, local + authority() + print);
  EXPECT_EQ(Connection("").encryption()->check, Encryption::Check::Authority);
  options.write(local + print);
  EXPECT_EQ(Connection("").encryption()->check, Encryption::Check::None);
  options.write(local);
  EXPECT_EQ(Connection("").encryption(), std::nullopt);
}

// MariaDB 10.11 has none; what the client library would do without encryption is tested above.
TEST_F(TlsSessionTest, UsersOfCachingSha2LogInWhereTheServerHasThem) {
  const bool has = !s_server
                        ->sql(
                            "select 1 from information_schema.all_plugins where"
                            " plugin_name='caching_sha2_password'")
                        .empty();
  const std::string make =
      "create or replace user tls_sha2@'%' identified via"
      " caching_sha2_password using password('" +
      std::string(s_password) + "')";
  if (!has) {
    const auto error = caughtError([&] { s_server->sql(make); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->number(), 1524U);  // Plugin is not loaded.
    return;
  }
  s_server->sql(make);
  const auto between = relay();
  EXPECT_THAT(attempt(*between, authority(), "tls_sha2"), HasSubstr("TLS_"));
}

TEST_F(TlsSessionTest, AConnectionThatIsOpenedAgainIsCheckedAgain) {
  const auto between = relay();
  const Testing::TestServer::OptionFile options(
      *s_server, "[client]\nhost=" + between->path() + "\nuser=tls_native\npassword=" + s_password +
                     "\n" + authority());
  Connection connection("");
  run(connection, "select 1");
  useCertificate("wrong-name");
  s_server->sql("kill " + std::to_string(connection.id()));
  const auto got = caughtError([&] { run(connection, "select 1"); });
  ASSERT_TRUE(got);
  EXPECT_THAT(got->what(), HasSubstr("Validation of SSL server certificate failed"));
}

}  // namespace
}  // namespace Tessel::Database
