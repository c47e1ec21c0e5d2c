// ClientOptions: the option-file keys of the client library (Connector/C 3.3), and how it takes
// their values.
#include "database/ClientOptions.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>

namespace Tessel::Database {

namespace {

constexpr char s_source[] = "ClientOptions";

enum class Type { None, Flag, Number, Size, Text };

struct Known {
  // The names of the option, the usual one first.
  std::array<std::string_view, 3> keys;
  mysql_option number;
  Type type;
};

// "local-infile" is known to the client library and left out on purpose: it is off.
// "disable-local-infile" would crash the client library if it has a value.
constexpr std::array s_known = {
    Known{{"port"}, MARIADB_OPT_PORT, Type::Number},
    Known{{"socket"}, MARIADB_OPT_UNIXSOCKET, Type::Text},
    Known{{"compress"}, MYSQL_OPT_COMPRESS, Type::Flag},
    Known{{"password", "passwd"}, MARIADB_OPT_PASSWORD, Type::Text},
    Known{{"pipe"}, MYSQL_OPT_NAMED_PIPE, Type::Flag},
    Known{{"connect-timeout", "timeout"}, MYSQL_OPT_CONNECT_TIMEOUT, Type::Number},
    Known{{"user"}, MARIADB_OPT_USER, Type::Text},
    Known{{"init-command"}, MYSQL_INIT_COMMAND, Type::Text},
    Known{{"host", "servername"}, MARIADB_OPT_HOST, Type::Text},
    Known{{"database", "db"}, MARIADB_OPT_SCHEMA, Type::Text},
    Known{{"return-found-rows"}, MARIADB_OPT_FOUND_ROWS, Type::None},
    Known{{"character-sets-dir"}, MYSQL_SET_CHARSET_DIR, Type::Text},
    Known{{"default-character-set"}, MYSQL_SET_CHARSET_NAME, Type::Text},
    Known{{"interactive-timeout"}, MARIADB_OPT_INTERACTIVE, Type::None},
    Known{{"max-allowed-packet"}, MYSQL_OPT_MAX_ALLOWED_PACKET, Type::Size},
    Known{{"net-buffer-length"}, MYSQL_OPT_NET_BUFFER_LENGTH, Type::Size},
    Known{{"protocol"}, MYSQL_OPT_PROTOCOL, Type::Number},
    Known{{"multi-results"}, MARIADB_OPT_MULTI_RESULTS, Type::Flag},
    Known{{"multi-statements", "multi-queries"}, MARIADB_OPT_MULTI_STATEMENTS, Type::Flag},
    Known{{"secure-auth"}, MYSQL_SECURE_AUTH, Type::Flag},
    Known{{"report-data-truncation"}, MYSQL_REPORT_DATA_TRUNCATION, Type::Flag},
    Known{{"reconnect"}, MYSQL_OPT_RECONNECT, Type::Flag},
    Known{{"plugin-dir"}, MYSQL_PLUGIN_DIR, Type::Text},
    Known{{"default-auth"}, MYSQL_DEFAULT_AUTH, Type::Text},
    Known{{"server-public-key"}, MYSQL_SERVER_PUBLIC_KEY, Type::Text},
    Known{{"bind-address"}, MYSQL_OPT_BIND, Type::Text},
    Known{{"restricted-auth"}, MARIADB_OPT_RESTRICTED_AUTH, Type::Text},
    Known{{"zstd-compression-level"}, MYSQL_OPT_ZSTD_COMPRESSION_LEVEL, Type::Number},
    Known{{"ssl-ca", "tls-ca"}, MYSQL_OPT_SSL_CA, Type::Text},
    Known{{"ssl-capath", "tls-capath"}, MYSQL_OPT_SSL_CAPATH, Type::Text},
    Known{{"ssl-cert", "tls-cert"}, MYSQL_OPT_SSL_CERT, Type::Text},
    Known{{"ssl-key", "tls-key"}, MYSQL_OPT_SSL_KEY, Type::Text},
    Known{{"ssl-passphrase", "tls-passphrase"}, MARIADB_OPT_TLS_PASSPHRASE, Type::Text},
    Known{{"ssl-crl", "tls-crl"}, MYSQL_OPT_SSL_CRL, Type::Text},
    Known{{"ssl-crlpath", "tls-crlpath"}, MYSQL_OPT_SSL_CRLPATH, Type::Text},
    Known{{"ssl-fp", "tls-fp"}, MARIADB_OPT_SSL_FP, Type::Text},
    Known{{"ssl-fplist", "ssl-fp-list", "tls-fplist"}, MARIADB_OPT_SSL_FP_LIST, Type::Text},
    Known{{"ssl-cipher", "tls-cipher"}, MYSQL_OPT_SSL_CIPHER, Type::Text},
    Known{{"tls-version"}, MARIADB_OPT_TLS_VERSION, Type::Text},
    Known{{"ssl-enforce", "tls-enforce"}, MYSQL_OPT_SSL_ENFORCE, Type::Flag},
    Known{{"ssl-verify-server-cert", "tls-verify-peer"},
          MYSQL_OPT_SSL_VERIFY_SERVER_CERT,
          Type::Flag},
};

const Known* s_find(std::string_view key) {
  if (key.empty()) return nullptr;
  const auto* const found = std::find_if(s_known.begin(), s_known.end(), [key](const Known& known) {
    return std::find(known.keys.begin(), known.keys.end(), key) != known.keys.end();
  });
  return found == s_known.end() ? nullptr : found;
}

void s_apply(MYSQL* mysql, const Known& known, const Option& option) {
  const char* const text = option.value && !option.value->empty() ? option.value->c_str() : nullptr;
  // NOLINTBEGIN(cert-err34-c): as the client library does; what is no number is 0
  switch (known.type) {
    case Type::None:
      mysql_optionsv(mysql, known.number, nullptr);
      break;
    case Type::Flag: {
      const auto flag = static_cast<my_bool>(text != nullptr ? std::atoi(text) : 0);
      mysql_optionsv(mysql, known.number, &flag);
      break;
    }
    case Type::Number: {
      const int number = text != nullptr ? std::atoi(text) : 0;
      mysql_optionsv(mysql, known.number, &number);
      break;
    }
    case Type::Size: {
      const auto size =
          static_cast<std::size_t>(text != nullptr ? std::strtol(text, nullptr, 10) : 0);
      mysql_optionsv(mysql, known.number, &size);
      break;
    }
    case Type::Text:
      if (text == nullptr && known.number == MYSQL_INIT_COMMAND) {
        refuseOption(option, "'init-command' has no value: write one, or remove the line",
                     s_source);
      }
      // Given as the host to connect to, it would be taken for further options.
      if (known.number == MARIADB_OPT_HOST && option.value &&
          option.value->find_first_of(";=/") != std::string::npos) {
        refuseOption(option, "'" + option.key + "' is not the name or the address of a host",
                     s_source);
      }
      mysql_optionsv(mysql, known.number, text);
      break;
  }
  // NOLINTEND(cert-err34-c)
}

}  // namespace

void applyOptions(MYSQL* mysql, const std::vector<Option>& options) {
  for (const Option& option : options) {
    if (option.key == "connection") {
      refuseOption(option,
                   "'connection' is not supported: write each of its options on a line of its own",
                   s_source);
    }
    if (const Known* known = s_find(option.key)) s_apply(mysql, *known, option);
  }
}

std::string_view optionName(std::string_view key) {
  const Known* const known = s_find(key);
  return known != nullptr ? known->keys[0] : std::string_view();
}

}  // namespace Tessel::Database
