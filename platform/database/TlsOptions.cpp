// TlsOptions: what option files may say about encryption, and what comes of it.
#include "database/TlsOptions.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>
#include <system_error>

#include "base/sourceLine.h"
#include "database/ClientOptions.h"

namespace Tessel::Database {

namespace {

constexpr char s_file[] = "TlsOptions";

// `why` never quotes a value that may be a secret.
[[noreturn]] void s_refuse(const Option& option, const std::string& why, int line = sourceLine()) {
  refuseOption(option, why, s_file, line);
}

// The key as a person reads it, in lower case: its first word. Where the '=' is missing, a secret
// may follow.
std::string s_plain(const std::string& key) {
  std::string plain = key.substr(0, key.find_first_of(" \t\r\n\v\f:"));
  for (char& letter : plain) {
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  }
  return plain;
}

// True for whatever is meant to be about encryption, spelled right or not.
bool s_isMeant(const std::string& key) {
  return key.find("ssl") != std::string::npos || key.find("tls") != std::string::npos;
}

constexpr char s_simplest[] = "'ssl-verify-server-cert=1'";

// For a key that the client library leaves out.
[[noreturn]] void s_refuseUnknown(const Option& option, const std::string& key) {
  if (key.front() == '!') {
    s_refuse(option, "the client library ignores '" + key.substr(1) +
                         "' in this file: of a directory it reads only the file my.cnf; write the"
                         " line there, or remove it");
  }
  const std::string_view name = optionName(key);
  const std::string why = "the client library ignores '" + key + "'";
  if (!name.empty() && option.value) {
    s_refuse(option, "the client library ignores it as it is spelled: write '" + key + "=...'");
  }
  if (!name.empty()) s_refuse(option, why + " without a value: write '" + key + "=...'");
  if (key == "ssl-mode" || key == "ssl") {
    s_refuse(option, why + ": write " + s_simplest + " for an encrypted connection to a server" +
                         " whose certificate is checked, or remove the line");
  }
  if (key.starts_with("skip-") || key.starts_with("disable-")) {
    s_refuse(option, why + ": remove the line; without any option about TLS nothing is encrypted");
  }
  s_refuse(option, why + ", which it does not know: correct the key, write " + s_simplest +
                       ", or remove the line");
}

void s_checkFlag(const Option& option, std::string_view name) {
  if (option.value == "1") return;
  if (name == "ssl-enforce") {
    s_refuse(option, option.value == "0"
                         ? "'" + option.key +
                               "=0' does not turn encryption off: remove the line; without any"
                               " option about TLS nothing is encrypted, with one everything is"
                         : "'" + option.key + "' takes a number: write '" + option.key + "=1'");
  }
  if (option.value == "0") return;
  s_refuse(option, "'" + option.key +
                       "' takes a number, any other word would turn it off: write '" + option.key +
                       "=1', or '=0' to encrypt without knowing who the server is");
}

void s_checkVersions(const Option& option) {
  std::string_view rest = *option.value;
  while (true) {
    const std::string_view version = rest.substr(0, rest.find(','));
    static constexpr std::array<std::string_view, 4> s_versions = {"TLSv1.0", "TLSv1.1", "TLSv1.2",
                                                                   "TLSv1.3"};
    if (std::find(s_versions.begin(), s_versions.end(), version) == s_versions.end()) {
      s_refuse(option, "'" + option.key +
                           "' has a version that the client library ignores: write '" + option.key +
                           "=TLSv1.3' or '" + option.key + "=TLSv1.2,TLSv1.3'");
    }
    if (version.size() == rest.size()) return;
    rest.remove_prefix(version.size() + 1);
  }
}

// The client library takes the suites of TLS 1.3 alone, if there are any, and otherwise restricts
// the older versions.
void s_checkCiphers(const Option& option) {
  const std::string& list = *option.value;
  if (list.find("NULL") != std::string::npos && list.find("!eNULL") == std::string::npos) {
    s_refuse(option, "'" + option.key + "' names ciphers that encrypt nothing: remove them");
  }
  std::size_t suites = 0;
  std::size_t all = 0;
  for (std::size_t at = 0; at <= list.size();) {
    const std::size_t end = std::min(list.find_first_of(":, ", at), list.size());
    if (end > at) ++all;
    if (list.compare(at, 4, "TLS_") == 0) ++suites;
    at = end + 1;
  }
  if (suites != 0 && suites != all) {
    s_refuse(option, "'" + option.key +
                         "' mixes ciphers of TLS 1.3, whose names begin with 'TLS_', and others,"
                         " which the client library ignores then: write one kind only, and"
                         " 'tls-version=TLSv1.3' or 'tls-version=TLSv1.2' to go with it");
  }
}

void s_checkFingerprint(const Option& option) {
  const std::string& text = *option.value;
  const std::size_t step = text.find(':') == std::string::npos ? 2 : 3;
  bool isGood = text.size() == 20 * step - (step == 3 ? 1 : 0);
  for (std::size_t i = 0; isGood && i < text.size(); ++i) {
    isGood = i % step == 2 ? text[i] == ':' : std::isxdigit(static_cast<unsigned char>(text[i]));
  }
  if (isGood) return;
  s_refuse(option, "'" + option.key +
                       "' is no SHA-1 fingerprint, the only kind that the client library knows: 40"
                       " hexadecimal digits, as 'openssl x509 -in CERTIFICATE -noout -fingerprint"
                       " -sha1' prints them behind the '='");
}

void s_checkPath(const Option& option, bool isDirectory) {
  const char* const path = option.value->c_str();
  struct stat status {};
  const int rights = isDirectory ? R_OK | X_OK : R_OK;
  std::string why;
  if (stat(path, &status) != 0 || faccessat(AT_FDCWD, path, rights, AT_EACCESS) != 0) {
    why = "which cannot be read (" + std::generic_category().message(errno) + ")";
  } else if (isDirectory != S_ISDIR(status.st_mode)) {
    why = isDirectory ? "which is not a directory" : "which is a directory";
  } else {
    return;
  }
  s_refuse(option, "'" + option.key + "' names '" + *option.value + "', " + why +
                       ": correct the path or the rights");
}

void s_checkOption(const Option& option, std::string_view name) {
  if (!option.value || option.value->empty()) {
    s_refuse(option, "'" + option.key +
                         "' has no value, so that the client library ignores it:"
                         " write one, or remove the line");
  }
  if (name == "ssl-enforce" || name == "ssl-verify-server-cert") {
    s_checkFlag(option, name);
  } else if (name == "tls-version") {
    s_checkVersions(option);
  } else if (name == "ssl-cipher") {
    s_checkCiphers(option);
  } else if (name == "ssl-fp") {
    s_checkFingerprint(option);
  } else if (name != "ssl-passphrase") {
    s_checkPath(option, name == "ssl-capath" || name == "ssl-crlpath");
  }
}

// The last one of `options` that is `name`, or null.
const Option* s_last(const std::vector<Option>& options, std::string_view name) {
  const auto last = std::find_if(options.rbegin(), options.rend(), [name](const Option& option) {
    return optionName(option.key) == name;
  });
  return last == options.rend() ? nullptr : &*last;
}

const Option* s_last(const std::vector<Option>& options, std::string_view name,
                     std::string_view orName) {
  const Option* const first = s_last(options, name);
  return first != nullptr ? first : s_last(options, orName);
}

// Options that are ignored because of others, or for want of others.
void s_checkTogether(const std::vector<Option>& options, const TlsDemand& demand) {
  const Option* const list = s_last(options, "ssl-fplist");
  if (list != nullptr && s_last(options, "ssl-fp") != nullptr) {
    s_refuse(*list, "the client library ignores '" + list->key +
                        "' next to a single fingerprint: remove one of the two");
  }
  const Option* const revoked = s_last(options, "ssl-crl", "ssl-crlpath");
  if (revoked != nullptr && !demand.checksIssuer) {
    s_refuse(*revoked, "the client library ignores '" + revoked->key +
                           "' unless the authority is checked: write 'ssl-ca=...' or " +
                           s_simplest + " too, or remove the line");
  }
}

}  // namespace

TlsDemand tlsDemand(const std::vector<Option>& options) {
  TlsDemand demand;
  for (const Option& option : options) {
    const std::string key = s_plain(option.key);
    if (!s_isMeant(key)) continue;
    demand.isAsked = true;
    const std::string_view name = optionName(option.key);
    if (name.empty()) s_refuseUnknown(option, key);
    s_checkOption(option, name);
  }
  if (!demand.isAsked) return demand;
  const Option* const verify = s_last(options, "ssl-verify-server-cert");
  demand.checksFingerprint = s_last(options, "ssl-fp", "ssl-fplist") != nullptr;
  demand.checksName = verify != nullptr ? verify->value == "1" : !demand.checksFingerprint;
  demand.checksIssuer = demand.checksName || s_last(options, "ssl-ca", "ssl-capath") != nullptr;
  s_checkTogether(options, demand);
  return demand;
}

void demandTls(MYSQL* mysql, const TlsDemand& demand) {
  if (!demand.isAsked) return;
  const my_bool on = 1;
  const my_bool checksName = demand.checksName ? 1 : 0;
  mysql_optionsv(mysql, MYSQL_OPT_SSL_VERIFY_SERVER_CERT, &checksName);
  // "Enforce" alone is a wish: of a server that offers no encryption the client library says no
  // only if a name or a fingerprint is to be checked, and then before it sends the user. An empty
  // fingerprint is one for this purpose, and is compared with nothing.
  if (!demand.checksName && !demand.checksFingerprint) {
    mysql_optionsv(mysql, MARIADB_OPT_SSL_FP, "");
  }
  mysql_optionsv(mysql, MYSQL_OPT_SSL_ENFORCE, &on);
}

void excuseTls(MYSQL* mysql) {
  const my_bool off = 0;
  my_bool wished = 0;
  mysql_get_optionv(mysql, MYSQL_OPT_SSL_ENFORCE, &wished);
  mysql_optionsv(mysql, MYSQL_OPT_SSL_VERIFY_SERVER_CERT, &off);
  mysql_optionsv(mysql, MARIADB_OPT_SSL_FP, nullptr);
  mysql_optionsv(mysql, MARIADB_OPT_SSL_FP_LIST, nullptr);
  // Setting a fingerprint, even none, is a wish for encryption.
  mysql_optionsv(mysql, MYSQL_OPT_SSL_ENFORCE, &wished);
}

}  // namespace Tessel::Database
