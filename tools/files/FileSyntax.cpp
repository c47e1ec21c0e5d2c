// The formats of table files.
#include "files/FileSyntax.h"

#include <algorithm>
#include <array>
#include <set>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/Exception.h"
#include "failure/Failure.h"
#include "tables/RowReader.h"

namespace Tessel::Tool {

namespace {

constexpr std::array<std::pair<const char*, FileFormat>, 5> s_formats = {
    {{"native", FileFormat::Native},
     {"jsonl", FileFormat::JsonLines},
     {"csv", FileFormat::Csv},
     {"virtual", FileFormat::Virtual},
     {"aliases", FileFormat::Aliases}}};
// Lines that a format is detected by.
constexpr std::size_t s_linesAhead = 50;
constexpr std::string_view s_blanks = " \t\r";

bool s_has(const TableFormat& table, FileFormat format) {
  return format != FileFormat::Aliases || !table.hasPublic;
}

std::string_view s_trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(s_blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(s_blanks) + 1 - first);
}

// Calls `parse`. Returns what is wrong with an address in it, or what `parse` returns.
template <class Parse>
std::string s_fault(Parse parse) {
  try {
    return parse();
  } catch (const Exception& exception) {
    if (!isAddressFault(exception)) throw;
    return reasonOf(exception);
  }
}

std::set<EmailAddress> s_membersOf(const TableEntry& entry) {
  return EmailAddress::rfc5322ParseSet(entry.value, true, false);
}

// "address,members" or "private,public".
std::string s_csvHeader(const TableFormat& table) {
  return table.hasPublic ? "private,public" : "address,members";
}

std::string s_csvField(const std::string& text) {
  if (text.find_first_of(",\"") == std::string::npos) return text;
  std::string field = "\"";
  for (const char c : text) field += c == '"' ? "\"\"" : std::string(1, c);
  return field + "\"";
}

// Removes the field at the start of `record`, with the comma after it. Returns what is wrong, or
// empty text.
std::string s_takeCsvField(std::string_view& record, std::string& field) {
  field.clear();
  if (!record.starts_with('"')) {
    const std::size_t end = std::min(record.find(','), record.size());
    field = record.substr(0, end);
    record.remove_prefix(end);
    return field.find('"') == std::string::npos ? "" : "a field without quotes contains a quote";
  }
  for (record.remove_prefix(1);;) {
    const std::size_t end = record.find('"');
    if (end == std::string_view::npos) return "a field has no closing quote in its line";
    field += record.substr(0, end);
    record.remove_prefix(end + 1);
    if (!record.starts_with('"')) break;
    field += '"';
    record.remove_prefix(1);
  }
  return record.empty() || record.starts_with(',') ? "" : "there is text after a closing quote";
}

// Why aliases(5) does not deliver to `text` as to an address; empty text when it does.
std::string s_specialTarget(std::string_view text) {
  if (text.starts_with('"')) text.remove_prefix(1);
  if (text.starts_with('|')) return "it delivers to a command";
  if (text.starts_with('/')) return "it delivers to a file";
  if (text.starts_with(":include:")) return "it includes a file";
  return "";
}

// The items of a list, which commas outside of quotes separate, without the blanks around them.
std::vector<std::string_view> s_items(std::string_view text) {
  std::vector<std::string_view> items;
  bool quoted = false;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || (text[i] == ',' && !quoted)) {
      items.push_back(s_trimmed(text.substr(start, i - start)));
      start = i + 1;
    } else if (quoted && text[i] == '\\') {
      ++i;
    } else if (text[i] == '"') {
      quoted = !quoted;
    }
  }
  items.erase(std::remove(items.begin(), items.end(), std::string_view()), items.end());
  return items;
}

// True when `text` is a mailbox; with `bare` a local part without a domain instead.
bool s_isAddress(std::string_view text, bool bare) {
  try {
    const EmailAddress address = EmailAddress::rfc5321Parse(text, bare);
    return !address.isNull() && address.domain().empty() == bare;
  } catch (const Exception&) {
    return false;
  }
}

// The format that a line looks like, which is not blank, no comment and no continuation.
bool s_looksLike(std::string_view line, const TableFormat& table, FileFormat& format) {
  // An address would end there.
  if (line.find('\0') != std::string_view::npos) return false;
  if (line.starts_with('{') && nlohmann::json::accept(line)) {
    format = FileFormat::JsonLines;
    return true;
  }
  const std::size_t colon = endOfKey(line);
  if (colon != std::string_view::npos) {
    const std::string_view key = s_trimmed(line.substr(0, colon));
    format = s_isAddress(key, false) ? FileFormat::Native : FileFormat::Aliases;
    if (format == FileFormat::Native) return true;
    if (s_has(table, format) && s_isAddress(key, true)) return true;
  }
  const std::string_view key = line.substr(0, line.find_first_of(s_blanks));
  format = FileFormat::Virtual;
  const bool isKey = s_isAddress(key, false) ||
                     (key.starts_with('@') && s_isAddress("x" + std::string(key), false));
  return isKey && key.size() < line.size();
}

}  // namespace

FileSyntax::FileSyntax(FileFormat format, const TableFormat& table, std::string domain)
    : m_format(format), m_table(table), m_domain(std::move(domain)) {
  if (m_domain.empty() || format == FileFormat::Aliases) return;
  throw Failure(ExitCode::Usage, "--domain", std::string("the format ") + name() + " takes none",
                "leave it out, or give --format aliases");
}

FileSyntax FileSyntax::named(const std::string& name, const TableFormat& table,
                             const std::string& domain) {
  for (const auto& [known, format] : s_formats) {
    if (name == known && s_has(table, format)) return {format, table, domain};
  }
  throw Failure(ExitCode::Usage, "--format " + name,
                std::string("there is no such format of ") + textOf(table.kind) + " tables",
                "use " + formatNames(table));
}

FileSyntax FileSyntax::detected(Lines& lines, const std::string& file, const TableFormat& table,
                                const std::string& domain) {
  std::set<FileFormat> seen;
  bool hasComments = false;
  for (const std::string& line : lines.ahead(s_linesAhead)) {
    if (isBlank(line)) continue;
    FileFormat format{};
    // What follows the header of a CSV file may look like anything.
    if (seen.empty() && line == s_csvHeader(table)) return {FileFormat::Csv, table, domain};
    // A key may begin with "#"; what is read as a comment is none then.
    if (s_looksLike(line, table, format)) {
      seen.insert(format);
    } else {
      hasComments = hasComments || line.front() == '#';
    }
  }
  const bool isMixed = seen.size() > 1;
  const bool hasStrangeComments =
      hasComments && !seen.contains(FileFormat::Virtual) && !seen.contains(FileFormat::Aliases);
  if (isMixed || hasStrangeComments) {
    throw Failure(ExitCode::BadData, file, "its format cannot be recognised from its first lines",
                  "nothing was written; give --format " + formatNames(table));
  }
  return {seen.empty() ? FileFormat::Native : *seen.begin(), table, domain};
}

const char* FileSyntax::name() const noexcept {
  const auto* const known = std::find_if(s_formats.begin(), s_formats.end(), [this](auto& format) {
    return format.second == m_format;
  });
  return known->first;
}

std::string FileSyntax::header() const {
  return m_format == FileFormat::Csv ? s_csvHeader(m_table) + "\r" : "";
}

std::string FileSyntax::write(const TableEntry& entry, std::string& line) const {
  switch (m_format) {
    case FileFormat::Native:
      line = entry.line();
      return "";
    case FileFormat::JsonLines:
      return writeJson(entry, line);
    case FileFormat::Csv:
      line = s_csvField(entry.key.address()) + "," + s_csvField(entry.value) + "\r";
      return "";
    case FileFormat::Virtual:
      return writeVirtual(entry, line);
    case FileFormat::Aliases:
      return writeAliases(entry, line);
  }
  return "";
}

std::string FileSyntax::writeJson(const TableEntry& entry, std::string& line) const {
  nlohmann::ordered_json object;
  if (m_table.hasPublic) {
    object = {{"private", entry.key.address()}, {"public", entry.value}};
  } else {
    object["address"] = entry.key.address();
    auto& members = object["members"];
    for (const EmailAddress& member : s_membersOf(entry)) members.push_back(member.address());
  }
  line = object.dump();
  return "";
}

std::string FileSyntax::writeVirtual(const TableEntry& entry, std::string& line) const {
  std::string key = entry.key.address();
  std::string value = entry.value;
  if (m_table.hasPublic) {
    const bool isWildcard =
        key.find('*') != std::string::npos || value.find('*') != std::string::npos;
    if (isWildcard && (entry.key.local() != "*" || entry.shown.local() != "*")) {
      return "only '*@domain' with '*@domain' means whole domains there";
    }
    // After the "*", which needs no quotes.
    if (isWildcard) key.erase(0, 1);
    if (isWildcard) value.erase(0, 1);
  } else {
    for (const EmailAddress& member : s_membersOf(entry)) {
      if (member.domain().empty()) return "the member '" + member.address() + "' has no domain";
    }
  }
  if (key.starts_with('#')) return "a line that begins with '#' is a comment there";
  if (key.find(' ') != std::string::npos) return "a key ends at a blank there";
  line = key + " " + value;
  return "";
}

std::string FileSyntax::writeAliases(const TableEntry& entry, std::string& line) const {
  if (entry.key.domain() != m_domain) {
    return "names have no domain there, and its own is not '" + m_domain + "'";
  }
  if (entry.key.local().empty()) return "a name cannot be empty there";
  const std::string address = entry.key.address();
  std::string name = address.substr(0, address.size() - m_domain.size() - 1);
  // Quotes that an address does not need change nothing.
  if (name.starts_with('#')) name = "\"" + name + "\"";
  for (const EmailAddress& member : s_membersOf(entry)) {
    const std::string text = member.address();
    if (member.domain().empty()) return "the member '" + text + "' has no domain";
    const std::string special = s_specialTarget(text);
    if (!special.empty()) return "the member '" + text + "' means something else there: " + special;
  }
  line = name + ": " + entry.value;
  return "";
}

std::string FileSyntax::read(std::string_view record, TableEntry& entry) const {
  if (record.find('\0') != std::string_view::npos) return "it contains a NUL character";
  switch (m_format) {
    case FileFormat::Native:
      return m_table.readLine(record, entry);
    case FileFormat::JsonLines:
      return readJson(record, entry);
    case FileFormat::Csv:
      return readCsv(record, entry);
    case FileFormat::Virtual:
      return readVirtual(record, entry);
    case FileFormat::Aliases:
      return readAliases(record, entry);
  }
  return "";
}

std::string FileSyntax::readJson(std::string_view record, TableEntry& entry) const {
  const auto object = nlohmann::json::parse(record, nullptr, false);
  const char* const key = m_table.hasPublic ? "private" : "address";
  const char* const value = m_table.hasPublic ? "public" : "members";
  if (!object.is_object()) return "it is not a JSON object";
  if (object.size() != 2 || !object.contains(key) || !object.contains(value)) {
    return std::string("it does not have the keys '") + key + "' and '" + value + "'";
  }
  if (!object[key].is_string()) return std::string("'") + key + "' is not a string";
  const std::string name = object[key];
  if (m_table.hasPublic) {
    if (!object[value].is_string()) return "'public' is not a string";
    return m_table.read(name, object[value].get<std::string>(), entry);
  }
  if (!object[value].is_array()) return "'members' is not a list";
  return s_fault([&]() -> std::string {
    std::set<EmailAddress> members;
    for (const auto& item : object[value]) {
      if (!item.is_string()) return "'members' contains something that is not a string";
      const std::string text = item;
      if (text.find('\0') != std::string::npos) return "it contains a NUL character";
      const EmailAddress member = EmailAddress::rfc5321Parse(text, true);
      if (member.isNull()) return "a member is empty";
      members.insert(member);
    }
    return m_table.read(name, joined(members), entry);
  });
}

std::string FileSyntax::readCsv(std::string_view record, TableEntry& entry) const {
  std::string key;
  std::string value;
  std::string fault = s_takeCsvField(record, key);
  if (!fault.empty()) return fault;
  if (record.empty()) return "there is one field, not two";
  record.remove_prefix(1);
  fault = s_takeCsvField(record, value);
  if (!fault.empty()) return fault;
  if (!record.empty()) return "there are more than two fields";
  return m_table.read(key, value, entry);
}

std::string FileSyntax::readVirtual(std::string_view record, TableEntry& entry) const {
  const std::size_t end = record.find_first_of(s_blanks);
  if (end == 0) return "it continues a line, and there is none before it";
  if (end == std::string_view::npos) return "there is nothing after the key";
  std::string key(record.substr(0, end));
  std::string value(s_trimmed(record.substr(end)));
  if (!m_table.hasPublic) {
    if (key.starts_with('@')) return "an alias cannot mean a whole domain";
    const std::string fault = s_fault([&]() -> std::string {
      EmailAddress::rfc5322ParseSet(value, false, false);
      return "";
    });
    return fault.empty() ? m_table.read(key, value, entry) : "bad members: " + fault;
  }
  const bool isDomain = key.starts_with('@');
  if (isDomain != value.starts_with('@')) {
    return "a whole domain can be shown as a whole domain only";
  }
  const auto hasStar = [](const std::string& text) { return text.find('*') != std::string::npos; };
  if (hasStar(key) || hasStar(value)) return "a '*' would make it a pair of whole domains";
  if (isDomain) key.insert(0, 1, '*');
  if (isDomain) value.insert(0, 1, '*');
  return m_table.read(key, value, entry);
}

std::string FileSyntax::readAliases(std::string_view record, TableEntry& entry) const {
  if (s_blanks.find(record.front()) != std::string_view::npos) {
    return "it continues a line, and there is none before it";
  }
  const std::size_t end = endOfKey(record);
  if (end == std::string_view::npos) return "there is no colon after a name";
  EmailAddress alias;
  std::string fault = qualified(s_trimmed(record.substr(0, end)), alias);
  if (!fault.empty()) return "bad name: " + fault;
  std::string members;
  fault = readTargets(record.substr(end + 1), members);
  return fault.empty() ? m_table.read(alias.address(), members, entry) : fault;
}

std::string FileSyntax::readTargets(std::string_view text, std::string& members) const {
  std::set<EmailAddress> addresses;
  for (const std::string_view item : s_items(text)) {
    std::string fault = s_specialTarget(item);
    if (!fault.empty()) return "the target '" + std::string(item) + "' is not an address: " + fault;
    EmailAddress address;
    fault = qualified(item, address);
    if (!fault.empty()) return "bad members: " + fault;
    addresses.insert(address);
  }
  members = joined(addresses);
  return "";
}

// The address that `item` is, with the domain given for names that have none.
std::string FileSyntax::qualified(std::string_view item, EmailAddress& address) const {
  return s_fault([&]() -> std::string {
    address = EmailAddress::rfc5322Parse(item, true);
    if (address.isNull()) return "it is empty";
    if (!address.domain().empty()) return "";
    if (m_domain.empty()) {
      return "'" + std::string(item) + "' has no domain; --domain gives one to such names";
    }
    address = EmailAddress::create(address.local(), m_domain, false);
    return "";
  });
}

Records::Records(Lines& lines, const FileSyntax& syntax)
    : m_lines(lines),
      m_logical(syntax.format() == FileFormat::Virtual || syntax.format() == FileFormat::Aliases) {}

bool Records::next(std::string_view& record) {
  if (m_logical) return nextLogical(record);
  while (m_lines.next(record)) {
    m_number = m_lines.number();
    if (!isBlank(record)) return true;
  }
  return false;
}

bool Records::nextLogical(std::string_view& record) {
  m_record = std::exchange(m_start, "");
  m_number = m_startNumber;
  std::string_view line;
  while (m_lines.next(line)) {
    // Neither ends a record.
    const std::size_t first = line.find_first_not_of(s_blanks);
    if (first == std::string_view::npos || line[first] == '#') continue;
    if (m_record.empty()) {
      m_record = line;
      m_number = m_lines.number();
    } else if (first > 0) {
      m_record += line;
    } else {
      m_start = line;
      m_startNumber = m_lines.number();
      break;
    }
  }
  record = m_record;
  return !m_record.empty();
}

std::string formatNames(const TableFormat& table) {
  std::string names;
  for (const auto& [name, format] : s_formats) {
    if (s_has(table, format)) names += (names.empty() ? "" : "|") + std::string(name);
  }
  return names;
}

}  // namespace Tessel::Tool
