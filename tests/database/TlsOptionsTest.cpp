// TlsOptions: options about encryption that would be ignored or misread are refused.
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/Exception.h"
#include "database/OptionFile.h"
#include "database/TlsOptions.h"
#include "support/ScratchFile.h"

namespace Tessel::Database {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr char s_phrase[] = "sEcret-oF-tHe-tests";

// What the refusal of `lines` says, or "accepted".
std::string s_refusal(const std::string& lines) {
  const Testing::ScratchFile file;
  file.write("[client]\n" + lines);
  try {
    tlsDemand(readOptions(file.path()));
    return "accepted";
  } catch (const Exception& refusal) {
    EXPECT_EQ(refusal.code(), 4);
    EXPECT_EQ(refusal.context(), "Database::Connection");
    EXPECT_STREQ(refusal.file(), "TlsOptions");
    EXPECT_THAT(refusal.stringParameter(), HasSubstr("'" + file.path() + "', line "));
    return refusal.stringParameter();
  }
}

TEST(TlsOptions, AKeyThatTheClientLibraryWouldIgnoreIsRefusedWithTheLineToWrite) {
  for (const auto& [lines, want] : std::vector<std::pair<std::string, std::string>>{
           {"ssl\n", "line 2: the client library ignores 'ssl': write 'ssl-verify-server-cert=1'"},
           {"ssl=1\n", "ignores 'ssl': write"},
           {"user=x\nssl-mode=REQUIRED\n", "line 3: the client library ignores 'ssl-mode': write"},
           {"ssl_mode = DISABLED\n", "ignores 'ssl-mode'"},
           {"skip-ssl\n", "ignores 'skip-ssl': remove the line; without any option"},
           {"disable-ssl-verify-server-cert\n", "remove the line"},
           {"loose-ssl-ca=/etc/hostname\n", "ignores 'loose-ssl-ca', which it does not know"},
           {"ssl-verify-server-certificate=1\n", "which it does not know"},
           {"ssl-vefiry-server-cert=1\n", "which it does not know"},
           {"tls-verify-server-cert=1\n", "which it does not know"},
           {"tls=1\n", "which it does not know"},
           {"sslca=x\n", "which it does not know"},
           {"SSL-CA=/etc/hostname\n", "as it is spelled: write 'ssl-ca=...'"},
           {"ssl-verify-server-cert\n",
            "'ssl-verify-server-cert' without a value: write 'ssl-verify-server-cert=...'"},
           {"ssl_enforce \n", "'ssl-enforce' without a value: write 'ssl-enforce=...'"},
           {"ssl-enforce", "'ssl-enforce' has no value"},
           {"ssl-ca=\n", "'ssl-ca' has no value"},
           {"ssl-ca=/etc/hostname\n\nssl-ca=''\n", "line 4: 'ssl-ca' has no value"}}) {
    EXPECT_THAT(s_refusal(lines), HasSubstr(want)) << lines;
  }
}

TEST(TlsOptions, AValueThatTheClientLibraryWouldMisreadIsRefused) {
  const std::string print(40, 'a');
  for (const auto& [lines, want] : std::vector<std::pair<std::string, std::string>>{
           {"ssl-verify-server-cert=ON\n", "any other word would turn it off"},
           {"tls_verify_peer=true\n", "write 'tls-verify-peer=1'"},
           {"ssl-verify-server-cert=1 # on\n", "takes a number"},
           {"ssl-verify-server-cert=2\n", "takes a number"},
           {"ssl-verify-server-cert=256\n", "takes a number"},
           {"ssl-enforce=yes\n", "'ssl-enforce' takes a number: write 'ssl-enforce=1'"},
           {"tls-enforce=0\n", "'tls-enforce=0' does not turn encryption off"},
           {"tls-version=TLSv1\n", "has a version that the client library ignores"},
           {"tls-version=tlsv1.3\n", "has a version"},
           {"tls-version=TLSv1.2, TLSv1.3\n", "has a version"},
           {"tls-version=TLSv1.2,TLSv1.4\n", "write 'tls-version=TLSv1.3' or"},
           {"ssl-cipher=TLS_AES_128_GCM_SHA256:ECDHE-RSA-AES256-GCM-SHA384\n", "mixes ciphers"},
           {"ssl-cipher=AES256-SHA:NULL-SHA256\n", "encrypt nothing"},
           {"ssl-fp=" + std::string(64, 'a') + "\n", "is no SHA-1 fingerprint"},
           {"ssl-fp=" + std::string(39, 'a') + "g\n", "-fingerprint -sha1"},
           {"ssl-fp=aa:" + std::string(56, 'a') + "\n", "is no SHA-1 fingerprint"},
           {"ssl-fp=SHA1:" + print + "\n", "is no SHA-1 fingerprint"},
           {"ssl-fplist=/etc/hostname\nssl-fp=" + print + "\n",
            "line 2: the client library ignores 'ssl-fplist' next to a single fingerprint"},
           {"ssl-fp=" + print + "\nssl-crl=/etc/hostname\n", "line 3: the client library ignores"},
           {"ssl-verify-server-cert=0\ntls-crlpath=/etc\n", "write 'ssl-ca=...' or"},
           {"ssl-ca=/nowhere/ca.pem\n", "'/nowhere/ca.pem', which cannot be read (No such file"},
           {"tls-key=/etc\n", "'/etc', which is a directory"},
           {"ssl-capath=/etc/hostname\n", "which is not a directory"},
           {"ssl-fplist=/nowhere\n", "which cannot be read"}}) {
    EXPECT_THAT(s_refusal(lines), HasSubstr(want)) << lines;
  }
  EXPECT_THAT(s_refusal("ssl-passphrase=" + std::string(s_phrase)), "accepted");
  EXPECT_THAT(s_refusal("ssl-pasphrase=" + std::string(s_phrase) + "\n"),
              AllOf(HasSubstr("ssl-pasphrase"), Not(HasSubstr(s_phrase))));
  for (const std::string between : {" ", ": ", "\t"}) {
    EXPECT_THAT(s_refusal("ssl_passphrase" + between + s_phrase + "\n"),
                AllOf(HasSubstr("'ssl-passphrase' without a value"), Not(HasSubstr(s_phrase))));
  }
}

// MariaDB's own programs read it, on Debian from /etc/mysql/mariadb.conf.d.
TEST(TlsOptions, AKeyInAFileThatOnlyOtherProgramsReadIsRefused) {
  const Testing::ScratchFile file;
  const std::string other = file.directory() + "/50-client.cnf";
  std::ofstream(other) << "[mysqld]\nssl-ca=x\n[client]\nhost=x\n\nssl_ca=/etc/hostname\n";
  file.write("[client]\nuser=x\n!includedir " + file.directory() + "\n");
  const std::vector<Option> options = readOptions(file.path());
  EXPECT_EQ(lastValue(options, {"host"}), std::nullopt);
  try {
    tlsDemand(options);
    ADD_FAILURE() << "accepted";
  } catch (const Exception& refusal) {
    EXPECT_THAT(refusal.stringParameter(),
                HasSubstr("'" + other + "', line 6: the client library ignores 'ssl_ca' in this"));
  }
}

TEST(TlsOptions, AFileThatThisUserMayNotReadIsRefused) {
  const Testing::ScratchFile key;
  key.write("key");
  key.forbid();
  const Testing::AsNobody nobody;
  EXPECT_THAT(s_refusal("ssl-key=" + key.path() + "\n"),
              HasSubstr("which cannot be read (Permission denied)"));
}

TEST(TlsOptions, WhatIsCheckedFollowsFromTheOptions) {
  const auto want = [](const std::string& lines) {
    const Testing::ScratchFile file;
    file.write("[client]\n" + lines);
    const TlsDemand demand = tlsDemand(readOptions(file.path()));
    std::string text = demand.isAsked ? "asked" : "";
    if (demand.checksName) text += " name";
    if (demand.checksIssuer) text += " issuer";
    if (demand.checksFingerprint) text += " fingerprint";
    return text;
  };
  const std::string print = "ssl-fp=" + std::string(40, 'a') + "\n";
  const std::string authority = "ssl-ca=/etc/hostname\n";
  const std::string off = "ssl-verify-server-cert=0\n";
  const std::string on = "ssl-verify-server-cert=1\n";
  EXPECT_EQ(want("user=x\nserver-public-key=/etc/hostname\n"), "");
  for (const std::string lines : {"ssl-enforce=1\n", "tls-version=TLSv1.2,TLSv1.3\n",
                                  "ssl-cipher=HIGH:!aNULL:!eNULL\n", "ssl-key=/etc/hostname\n"}) {
    EXPECT_EQ(want(lines), "asked name issuer") << lines;
  }
  EXPECT_EQ(want(authority), "asked name issuer");
  EXPECT_EQ(want(print), "asked fingerprint");
  EXPECT_EQ(want("ssl-fp-list=/etc/hostname\n"), "asked fingerprint");
  EXPECT_EQ(want(print + authority + "ssl-crl=/etc/hostname\n"), "asked issuer fingerprint");
  EXPECT_EQ(want(print + on), "asked name issuer fingerprint");
  EXPECT_EQ(want(off), "asked");
  EXPECT_EQ(want(off + on), "asked name issuer");
  EXPECT_EQ(want(on + off), "asked");
  EXPECT_EQ(want(off + authority), "asked issuer");
}

}  // namespace
}  // namespace Tessel::Database
