// TlsSession: looks at a connection after the client library has opened it.
#include "database/TlsSession.h"

#include <errmsg.h>
#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <new>
#include <string>
#include <string_view>

// What the next header takes for granted.
#define HAVE_TLS  // NOLINT(cppcoreguidelines-macro-usage)
using uchar = unsigned char;
#include <ma_pvio.h>

#include "base/bytes.h"
#include "base/sourceLine.h"
#include "database/Error.h"
#include "database/StatementObserver.h"
#include "database/Wait.h"

namespace Tessel::Database {

namespace {

constexpr char s_context[] = "Database::Connection";
constexpr char s_file[] = "TlsSession";

using ResultOwner = std::unique_ptr<MYSQL_RES, decltype(&mysql_free_result)>;

[[noreturn]] void s_fail(MYSQL* mysql, const std::string& why, int line = sourceLine()) {
  throw Error(s_context, s_file, line,
              {CR_SSL_CONNECTION_ERROR,
               "HY000",
               why + "; server: " + mysql_get_host_info(mysql),
               {},
               false});
}

using CertificateOwner = std::unique_ptr<X509, decltype(&X509_free)>;
using BufferOwner = std::unique_ptr<BIO, decltype(&BIO_free)>;

// The TLS session, which the client library does not give away. Null where it does not run on
// OpenSSL, or is another version than the one whose header we know.
SSL* s_session(MYSQL* mysql) {
  const char* library = nullptr;
  mariadb_get_infov(mysql, MARIADB_TLS_LIBRARY, &library);
  const bool isKnown = library != nullptr && std::string_view(library).starts_with("OpenSSL ") &&
                       mysql_get_client_version() / 100 == MARIADB_PACKAGE_VERSION_ID / 100;
  return isKnown ? static_cast<SSL*>(mysql->net.pvio->ctls->ssl) : nullptr;
}

// Whose certificate the server has shown; empty when it cannot be known.
std::string s_subject(MYSQL* mysql) {
  SSL* const session = s_session(mysql);
  const CertificateOwner certificate(
      session != nullptr ? SSL_get1_peer_certificate(session) : nullptr, &X509_free);
  const BufferOwner buffer(BIO_new(BIO_s_mem()), &BIO_free);
  if (!certificate || !buffer) return "";
  X509_NAME_print_ex(buffer.get(), X509_get_subject_name(certificate.get()), 0,
                     XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB));
  char* text = nullptr;
  const long size = BIO_get_mem_data(buffer.get(), &text);
  return size > 0 ? std::string(text, static_cast<std::size_t>(size)) : "";
}

Encryption::Check s_check(const MYSQL& mysql, const TlsDemand& demand) {
  if (demand.checksName) return Encryption::Check::Name;
  if (demand.checksFingerprint) return Encryption::Check::Fingerprint;
  // Over a Unix socket, too, the client library checks against the authorities that are named.
  const bool hasAuthority = mysql.options.ssl_ca != nullptr || mysql.options.ssl_capath != nullptr;
  return hasAuthority ? Encryption::Check::Authority : Encryption::Check::None;
}

}  // namespace

void checkTls(MYSQL* mysql, const TlsDemand& demand, std::chrono::steady_clock::time_point until) {
  if (!demand.isAsked) return;
  if (mysql_get_ssl_cipher(mysql) == nullptr) s_fail(mysql, "The connection is not encrypted");
  const std::string want = randomHex(8);
  const std::string statement = "select '" + want + "'";
  tellStatement(statement);
  // Bytes that somebody put behind the server's greeting, before the encryption began, count as its
  // first answers. Nobody can put this one there.
  if (queryUntil(mysql, statement, until) == 0) {
    const ResultOwner result(storeUntil(mysql, until), &mysql_free_result);
    const MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
    if (row != nullptr && row[0] != nullptr && row[0] == want) return;
  }
  if (mysql_errno(mysql) == CR_OUT_OF_MEMORY) throw std::bad_alloc();
  s_fail(mysql, std::string("The first answer on the encrypted connection is not the server's") +
                    (mysql_errno(mysql) != 0 ? std::string(": ") + mysql_error(mysql) : ""));
}

std::optional<Encryption> encryptionOf(MYSQL* mysql, const TlsDemand& demand) {
  const char* const cipher = mysql_get_ssl_cipher(mysql);
  if (cipher == nullptr) return std::nullopt;
  const char* version = nullptr;
  mariadb_get_infov(mysql, MARIADB_CONNECTION_TLS_VERSION, &version);
  return Encryption{version != nullptr ? version : "", cipher, s_subject(mysql),
                    s_check(*mysql, demand)};
}

}  // namespace Tessel::Database
