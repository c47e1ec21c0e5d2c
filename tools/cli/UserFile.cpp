// A file of mail users: passwords, addresses, or addresses with their kinds and domains.
#include "cli/UserFile.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <optional>
#include <utility>

#include "base/Exception.h"
#include "base/stringCompareNoCase.h"
#include "cli/AddressInput.h"
#include "failure/Failure.h"
#include "tables/AddressKey.h"
#include "tables/DomainMerge.h"
#include "tables/UserNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

// Accounts of people begin here; 65534 is the user nobody.
constexpr std::uint32_t s_firstAccount = 1000;
constexpr std::uint32_t s_nobody = 65534;
constexpr std::size_t s_passwdFields = 7;
// Enough to find the first line that is not blank.
constexpr std::size_t s_linesAhead = 100;

// True when the first line that is not blank has fields. The colons of an address are in quotes or
// in a literal.
bool s_isPasswd(Lines& lines) {
  for (const std::string& line : lines.ahead(s_linesAhead)) {
    if (!isBlank(line)) return endOfKey(line) != std::string_view::npos;
  }
  return false;
}

// Splits a line of the password file. False when it has another number of fields.
bool s_split(std::string_view line, std::array<std::string_view, s_passwdFields>& fields) {
  for (std::size_t i = 0; i < s_passwdFields; ++i) {
    const std::size_t end = line.find(':');
    const bool isLast = i + 1 == s_passwdFields;
    if (isLast != (end == std::string_view::npos)) return false;
    fields[i] = line.substr(0, end);
    if (!isLast) line.remove_prefix(end + 1);
  }
  return true;
}

}  // namespace

UserFile::UserFile(const Options& options, const MailUsers& configuration, Progress& progress)
    : m_options(options),
      m_configuration(configuration),
      m_name(options.path == "-" ? "standard input" : options.path),
      m_domain(options.domain.empty() ? "" : parseDomain(options.domain)) {
  progress.beginReading(options.path);
  Lines lines(options.path, m_name);
  const bool isPasswd = !options.hasDomains && s_isPasswd(lines);
  requireDomain(isPasswd);
  LineFaults faults(m_name);
  std::string_view line;
  while (lines.next(line)) {
    progress.set(lines.number());
    if (isBlank(line)) continue;
    const std::string fault = isPasswd ? addAccount(line) : addLine(trimmed(line));
    if (!fault.empty()) faults.add(lines.number(), fault);
  }
  faults.refuse("it has bad lines");
  for (auto& [name, domain] : m_domains) {
    std::sort(domain.users.begin(), domain.users.end(),
              [](const User& a, const User& b) { return a.address < b.address; });
  }
}

void UserFile::requireDomain(bool isPasswd) const {
  if (isPasswd == !m_domain.empty()) return;
  throw Failure(ExitCode::Usage, m_name,
                isPasswd ? "it looks like a password file, whose names have no domain"
                         : "it has addresses, and --domain is for a password file",
                isPasswd ? "give --domain DOMAIN" : "leave --domain out");
}

std::string UserFile::addAccount(std::string_view line) {
  std::array<std::string_view, s_passwdFields> fields;
  if (!s_split(line, fields)) return "it does not have the seven fields of a password file";
  std::uint32_t id = 0;
  const auto [end, error] =
      std::from_chars(fields[2].data(), fields[2].data() + fields[2].size(), id);
  const bool isNumber = error == std::errc() && end == fields[2].data() + fields[2].size();
  if (!isNumber) return "the user number '" + std::string(fields[2]) + "' is not a number";
  if (!m_options.all && (id < s_firstAccount || id == s_nobody)) {
    ++m_system;
    return "";
  }
  return addAddress(std::string(fields[0]).append("@").append(m_domain), m_options.kind);
}

std::string UserFile::addLine(std::string_view line) {
  if (m_options.hasDomains && line.find('@') == std::string_view::npos) {
    return addDomain(std::string(line));
  }
  const std::size_t tab = line.rfind('\t');
  if (tab == std::string_view::npos) return addAddress(line, m_options.kind);
  const std::string text(line.substr(tab + 1));
  const std::optional<CMF::MailUserKind> kind = userKindOf(text);
  if (!kind) return "there is no kind '" + text + "' of mail user";
  return addAddress(line.substr(0, tab), *kind);
}

std::string UserFile::addDomain(const std::string& text) {
  try {
    const std::string domain = parseDomain(text);
    if (stored(domain) != nullptr) return "";
    const std::string name = nameToStore(domain);
    if (!stringCompareNoCase(name, domain, 0)) {
      say("domain " + domain + " is stored as " + name);
    }
    Domain& added = m_domains[name];
    added.isNew = true;
    m_new[comparisonDomain(domain)] = &added;
    m_known[domain] = &added;
    return "";
  } catch (const Failure& failure) {
    if (failure.code() != ExitCode::BadData) throw;
    return "bad domain: " + failure.why();
  }
}

std::string UserFile::addAddress(std::string_view text, CMF::MailUserKind kind) {
  if (text.find('\0') != std::string_view::npos) return "it contains a NUL character";
  try {
    EmailAddress address = EmailAddress::rfc5321Parse(text, false);
    if (address.isNull()) return "the address is empty";
    std::string fault = userFault(address);
    if (fault.empty()) fault = addUser(std::move(address), kind);
    return fault;
  } catch (const Exception& exception) {
    if (!isAddressFault(exception)) throw;
    return "bad address: " + reasonOf(exception);
  }
}

std::string UserFile::addUser(EmailAddress address, CMF::MailUserKind kind) {
  const std::string domain = address.domain();
  Domain* const known = stored(domain);
  if (known == nullptr) {
    return "there is no domain " + domain + " in the configuration" +
           (m_options.hasDomains ? ", nor in a line above" : "");
  }
  const AddressIndex::Added seen = m_seen.add(address.address());
  if (seen.isNew) {
    m_kinds.push_back(kind);
    known->users.push_back({std::move(address), kind});
    return "";
  }
  ++m_repeated;
  if (m_kinds[seen.id] == kind) return "";
  return "a line above says that it is of the kind " + userKindText(m_kinds[seen.id]);
}

// The domain with this spelling, or null when neither the configuration nor the file has it.
UserFile::Domain* UserFile::stored(const std::string& domain) {
  const auto known = m_known.find(domain);
  if (known != m_known.end() && known->second != nullptr) return known->second;
  if (!m_options.hasDomains || !m_configuration.isAbsent()) m_configuration.require();
  Domain* found = nullptr;
  // Spellings of one domain share their users.
  const std::vector<StoredDomain> spellings = m_configuration.spellingsOf(domain);
  if (!spellings.empty()) {
    found = &m_domains[spellings.front().name];
  } else if (const auto added = m_new.find(comparisonDomain(domain)); added != m_new.end()) {
    found = added->second;
  }
  m_known[domain] = found;
  return found;
}

}  // namespace Tessel::Tool
