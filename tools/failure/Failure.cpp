// Exit statuses and messages of the tool.
#include "failure/Failure.h"

#include <cstddef>
#include <new>
#include <utility>

#include "base/bytes.h"
#include "database/Error.h"

namespace Tessel::Tool {

namespace {

// Error numbers of the server and its client library that the tool has advice for.
constexpr unsigned int s_databaseDenied = 1044;
constexpr unsigned int s_accessDenied = 1045;
constexpr unsigned int s_columnDenied = 1143;
constexpr unsigned int s_privilegeMissing = 1227;
constexpr unsigned int s_socketDenied = 1698;
constexpr unsigned int s_encryptionFailed = 2026;

// Length of the UTF-8 character at the start of `text`, or 0 when it starts with none.
std::size_t s_characterSize(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  std::size_t size = 0;
  if (lead < 0x80) return 1;
  if (lead >= 0xc2 && lead <= 0xdf) size = 2;
  if (lead >= 0xe0 && lead <= 0xef) size = 3;
  if (lead >= 0xf0 && lead <= 0xf4) size = 4;
  if (size == 0 || text.size() < size) return 0;
  for (std::size_t i = 1; i < size; ++i) {
    if (!isUtf8Continuation(text[i])) return 0;
  }
  const auto second = static_cast<unsigned char>(text[1]);
  if (lead == 0xe0 && second < 0xa0) return 0;  // Overlong.
  if (lead == 0xed && second > 0x9f) return 0;  // Surrogate.
  if (lead == 0xf0 && second < 0x90) return 0;  // Overlong.
  if (lead == 0xf4 && second > 0x8f) return 0;  // Beyond Unicode.
  return size;
}

// True for the characters that may command a terminal, and for those that make a text look like
// another one: C0, DEL, C1, line separators, and what is invisible or changes the direction.
bool s_isControl(std::string_view character) {
  const auto byte = [character](std::size_t i) { return static_cast<unsigned char>(character[i]); };
  if (character.size() == 1) return byte(0) < 0x20 || byte(0) == 0x7f;
  if (character.size() == 2) {
    const bool isArabicMark = character == "\u061c";
    return isArabicMark || (byte(0) == 0xc2 && (byte(1) < 0xa0 || byte(1) == 0xad));
  }
  if (character.size() != 3) return false;
  const unsigned int code = (byte(0) & 0xfU) << 12U | (byte(1) & 0x3fU) << 6U | (byte(2) & 0x3fU);
  return (code >= 0x200b && code <= 0x200f) || (code >= 0x2028 && code <= 0x202e) ||
         (code >= 0x2060 && code <= 0x206f) || code == 0x180e || code == 0xfeff;
}

// The first exception of the chain for which `matches` holds, or null.
template <class Matches>
const Exception* s_inChain(const Exception& exception, Matches matches) {
  for (const Exception* link = &exception; link != nullptr; link = link->cause()) {
    if (matches(*link)) return link;
  }
  return nullptr;
}

const Database::Error* s_databaseError(const Exception& exception) {
  return dynamic_cast<const Database::Error*>(s_inChain(exception, [](const Exception& link) {
    return dynamic_cast<const Database::Error*>(&link) != nullptr;
  }));
}

// The part of `text` between `before` and `after`; empty when one of them is not there, as in the
// messages of a server that speaks another language.
std::string s_between(const std::string& text, std::string_view before, std::string_view after) {
  const std::size_t start = text.find(before);
  if (start == std::string::npos) return "";
  const std::size_t end = text.find(after, start + before.size());
  if (end == std::string::npos) return "";
  return text.substr(start + before.size(), end - start - before.size());
}

// The user of a message about rights, as SQL writes it.
std::string s_userIn(const std::string& message) {
  const std::string user = s_between(message, " user '", "'@'");
  const std::string host = s_between(message, "'@'", "'");
  return user.empty() ? "the database user" : "'" + user + "'@'" + host + "'";
}

std::string s_rightsHint(const Database::Error& error) {
  const std::string& message = error.stringParameter();
  const std::size_t end = message.find(" command denied to ");
  std::string right = "SELECT";  // For what only looks up. The server does not always name it.
  if (end != std::string::npos) {
    right = message.substr(0, end);
  } else if (error.statement().starts_with("create")) {
    right = "CREATE";
  }
  // The preparation of the database begins by connecting to the server's own one, which takes a
  // right on any table there.
  const bool isOwn = s_between(message, "to database '", "'") == "mysql";
  return "as an administrator of the database server: GRANT " + right + " ON " +
         (isOwn ? "mysql.help_topic" : "ts_address_map.*") + " TO " + s_userIn(message) +
         "; or name the option file of a user with that right";
}

std::string s_missingTableHint(const std::string& message) {
  const std::string table = s_between(message, "'ts_address_map.", "'");
  for (const std::string_view start : {"alias_", "mask_"}) {
    if (!table.starts_with(start)) continue;
    return "create the tables with 'tsl-address-map table create " + table.substr(start.size()) +
           "', or correct --table; 'tsl-address-map table list' shows those there are";
  }
  return "create missing base tables with 'tsl-address-map init'; 'tsl-address-map status' shows"
         " the tables there are";
}

// True when the answer stays the same until somebody changes the settings, the rights or the
// tables.
bool s_isLasting(const Database::Error& error) {
  switch (error.number()) {
    case s_databaseDenied:
    case s_accessDenied:
    case s_unknownDatabase:
    case s_commandDenied:
    case s_columnDenied:
    case s_noSuchTable:
    case s_privilegeMissing:
    case s_socketDenied:
      return true;
    default:
      return false;
  }
}

std::string s_databaseHint(const Database::Error& error) {
  if (error.outcomeUnknown()) {
    return "the connection broke before the answer: check whether the change was made";
  }
  switch (error.number()) {
    case s_accessDenied:
      return "check user and password of " + s_userIn(error.stringParameter()) +
             " in the option file, groups [client] and [tsl-address-map]";
    case s_socketDenied:
      return "the server admits " + s_userIn(error.stringParameter()) +
             " without a password only from the operating-system user of that name: run the command"
             " as that user";
    case s_databaseDenied:
    case s_commandDenied:
    case s_columnDenied:
      return s_rightsHint(error);
    case s_privilegeMissing:
      return "use the option file of a database user with the right that the server names";
    case s_unknownDatabase:
      return "create the database with 'tsl-address-map init'";
    case s_encryptionFailed:
      return "check that the server offers TLS and that its certificate fits the options about TLS"
             " (ssl-..., tls-...) in the option file";
    case s_noSuchTable:
      return s_missingTableHint(error.stringParameter());
    default:
      return error.number() >= 2000
                 ? "check that the server runs and that the option file names it, or use --local"
                 : "try again; --verbose shows the whole chain of failures";
  }
}

Failure s_failureOf(const Exception& exception, const std::string& subject) {
  const std::string why = reasonOf(exception);
  if (const Database::Error* error = s_databaseError(exception)) {
    const ExitCode code = s_isLasting(*error) ? ExitCode::Configuration : ExitCode::Unavailable;
    return {code, subject, why, s_databaseHint(*error)};
  }
  if (isAddressFault(exception)) {
    return {ExitCode::BadData, subject, why, "correct the address and try again"};
  }
  // The database library reports wrong settings (option file, environment) as plain exceptions.
  const bool settings = s_inChain(exception, [](const Exception& link) {
                          return link.context().starts_with("Database::");
                        }) != nullptr;
  if (settings) {
    return {ExitCode::Configuration, subject, why,
            "see --option-file and TSL_DATABASE_OPTION_FILE in 'tsl-address-map --help'"};
  }
  return {ExitCode::Unavailable, subject, why,
          "try again; --verbose shows the whole chain of failures"};
}

}  // namespace

Failure::Failure(ExitCode code, std::string subject, std::string why, std::string hint)
    : std::runtime_error(subject + ": " + why),
      m_code(code),
      m_subject(std::move(subject)),
      m_why(std::move(why)),
      m_hint(std::move(hint)) {}

std::string printable(std::string_view text) {
  std::string shown;
  shown.reserve(text.size());
  while (!text.empty()) {
    const std::size_t size = s_characterSize(text);
    const std::string_view character = text.substr(0, size == 0 ? 1 : size);
    if (size == 0 || s_isControl(character)) {
      for (const char byte : character) appendEscaped(shown, byte);
    } else {
      shown += character;
    }
    text.remove_prefix(character.size());
  }
  return shown;
}

bool isAddressFault(const Exception& exception) {
  return s_inChain(exception, [](const Exception& link) {
           return link.context().starts_with("EmailAddress::");
         }) != nullptr;
}

bool isDatabaseError(const Exception& exception, unsigned int number) {
  return s_inChain(exception, [number](const Exception& link) {
           const auto* error = dynamic_cast<const Database::Error*>(&link);
           return error != nullptr && error->number() == number;
         }) != nullptr;
}

bool isOutcomeUnknown(const Exception& exception) {
  const Database::Error* const error = s_databaseError(exception);
  return error != nullptr && error->outcomeUnknown();
}

std::string reasonOf(const Exception& exception) {
  std::string reason;
  for (const Exception* link = &exception; link != nullptr; link = link->cause()) {
    if (!link->stringParameter().empty()) reason = link->stringParameter();
  }
  return reason.empty() ? exception.what() : reason;
}

Failure failureOf(const std::exception& exception, const std::string& subject) {
  if (const auto* failure = dynamic_cast<const Failure*>(&exception)) return *failure;
  if (const auto* known = dynamic_cast<const Exception*>(&exception)) {
    return s_failureOf(*known, subject);
  }
  if (dynamic_cast<const std::bad_alloc*>(&exception) != nullptr) {
    return {ExitCode::Unavailable, subject, "not enough memory", "free some and try again"};
  }
  return {ExitCode::Unavailable, subject, exception.what(), "try again"};
}

}  // namespace Tessel::Tool
