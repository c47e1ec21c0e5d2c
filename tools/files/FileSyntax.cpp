// The formats of table files.
#include "files/FileSyntax.h"

#include <algorithm>
#include <array>
#include <utility>

#include <nlohmann/json.hpp>

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

bool s_has(const TableFormat& table, FileFormat format) {
  return format != FileFormat::Aliases || !table.hasPublic;
}

const char* s_nameOf(FileFormat format) {
  const auto* const known = std::find_if(s_formats.begin(), s_formats.end(),
                                         [format](auto& one) { return one.second == format; });
  return known->first;
}

std::unique_ptr<FileSyntax> s_make(FileFormat format, const TableFormat& table,
                                   const std::string& domain) {
  const bool takesDomain =
      format == FileFormat::Aliases || (format == FileFormat::Virtual && !table.hasPublic);
  if (!domain.empty() && !takesDomain) {
    throw Failure(ExitCode::Usage, "--default-domain",
                  std::string("the format ") + s_nameOf(format) + " takes none",
                  "leave it out, or give --format aliases or virtual");
  }
  switch (format) {
    case FileFormat::Native:
      break;
    case FileFormat::JsonLines:
      return makeJsonSyntax(table);
    case FileFormat::Csv:
      return makeCsvSyntax(table);
    case FileFormat::Virtual:
      return makeVirtualSyntax(table, domain);
    case FileFormat::Aliases:
      return makeAliasesSyntax(table, domain);
  }
  return makeNativeSyntax(table);
}

// True when `text` is a mailbox; with `bare` a local part without a domain instead.
bool s_isAddress(std::string_view text, bool bare) {
  EmailAddress address;
  const auto fault = addressFault([&] { address = EmailAddress::rfc5321Parse(text, bare); });
  return !fault && !address.isNull() && address.domain().empty() == bare;
}

// The format that a line looks like, which is not blank, no comment and no continuation.
bool s_looksLike(std::string_view line, const TableFormat& table, FileFormat& format) {
  // An address would end there.
  if (line.find('\0') != std::string_view::npos) return false;
  const std::string_view object = jsonObjectIn(line);
  if (object.empty() || (object.starts_with('{') && nlohmann::json::accept(object))) {
    format = FileFormat::JsonLines;
    return true;
  }
  const std::size_t colon = endOfKey(line);
  if (colon != std::string_view::npos) {
    const std::string_view key = trimmed(line.substr(0, colon));
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

std::unique_ptr<FileSyntax> FileSyntax::named(const std::string& name, const TableFormat& table,
                                              const std::string& domain) {
  for (const auto& [known, format] : s_formats) {
    if (name == known && s_has(table, format)) return s_make(format, table, domain);
  }
  throw Failure(ExitCode::Usage, "--format " + name,
                std::string("there is no such format of ") + textOf(table.kind) + " tables",
                "use " + formatNames(table));
}

std::unique_ptr<FileSyntax> FileSyntax::detected(Lines& lines, const std::string& file,
                                                 const TableFormat& table,
                                                 const std::string& domain) {
  std::set<FileFormat> seen;
  bool hasComments = false;
  for (const std::string& line : lines.ahead(s_linesAhead)) {
    if (isBlank(line)) continue;
    FileFormat format{};
    // What follows the header of a CSV file may look like anything.
    const bool isHeader = seen.empty() && !makeCsvSyntax(table)->readHeader(line);
    if (isHeader) return s_make(FileFormat::Csv, table, domain);
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
  return s_make(seen.empty() ? FileFormat::Native : *seen.begin(), table, domain);
}

std::optional<std::string> FileSyntax::readHeader(std::string_view /*record*/) {
  return std::nullopt;
}

void FileSyntax::setColumns(const std::string& /*names*/) {
  throw Failure(ExitCode::Usage, "--columns", std::string("the format ") + name() + " has none",
                "leave it out, or give --format csv");
}

bool FileSyntax::isFiller(std::string_view /*record*/) const {
  return false;
}

const char* FileSyntax::name() const noexcept {
  return s_nameOf(m_format);
}

std::optional<Fault> FileSyntax::read(std::string_view record, TableEntry& entry) {
  if (record.find('\0') != std::string_view::npos)
    return formatFault("it contains a NUL character");
  return readRecord(record, entry);
}

std::optional<Fault> FileSyntax::readKey(std::string_view text, TableEntry& entry) {
  const RowFault fault = m_reader.readKey(text);
  if (fault != RowFault::None) return Fault{fault, m_reader.why()};
  entry.key = m_reader.keyAddress();
  return std::nullopt;
}

std::optional<Fault> FileSyntax::setMembers(const std::set<EmailAddress>& members,
                                            TableEntry& entry) {
  if (members.empty()) return Fault{m_reader.readValue(""), m_reader.why()};
  entry.values.assign(members.begin(), members.end());
  return std::nullopt;
}

Fault formatFault(std::string why) {
  return {RowFault::BadFormat, std::move(why)};
}

std::string formatNames(const TableFormat& table) {
  std::string names;
  for (const auto& [name, format] : s_formats) {
    if (s_has(table, format)) names += (names.empty() ? "" : "|") + std::string(name);
  }
  return names;
}

}  // namespace Tessel::Tool
