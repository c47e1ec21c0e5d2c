// Comma-separated values (RFC 4180) with a header. Other programs separate them by semicolons or
// tabs, and have other headers.
#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "base/stringCompareNoCase.h"
#include "failure/Failure.h"
#include "files/FileSyntax.h"

namespace Tessel::Tool {

namespace {

std::string s_field(const std::string& text) {
  if (text.find_first_of(",\"") == std::string::npos) return text;
  std::string field = "\"";
  for (const char c : text) field += c == '"' ? "\"\"" : std::string(1, c);
  return field + "\"";
}

// Removes the field at the start of `record`, up to the separator after it. Returns what is wrong,
// if anything is.
std::optional<Fault> s_takeField(std::string_view& record, char separator, std::string& field) {
  if (!record.starts_with('"')) {
    const std::size_t end = std::min(record.find(separator), record.size());
    field = record.substr(0, end);
    record.remove_prefix(end);
    if (field.find('"') == std::string::npos) return std::nullopt;
    return formatFault("a field without quotes contains a quote");
  }
  for (record.remove_prefix(1);;) {
    const std::size_t end = record.find('"');
    if (end == std::string_view::npos) {
      return formatFault("a field has no closing quote in its line");
    }
    field += record.substr(0, end);
    record.remove_prefix(end + 1);
    if (!record.starts_with('"')) break;
    field += '"';
    record.remove_prefix(1);
  }
  if (record.empty() || record.starts_with(separator)) return std::nullopt;
  return formatFault("there is text after a closing quote");
}

// Splits `record` into its fields. Returns what is wrong, if anything is.
std::optional<Fault> s_split(std::string_view record, char separator,
                             std::vector<std::string>& fields) {
  for (;;) {
    if (auto fault = s_takeField(record, separator, fields.emplace_back())) return fault;
    if (record.empty()) return std::nullopt;
    record.remove_prefix(1);
  }
}

// The first separator of the header `record` that is not in quotes.
char s_separatorOf(std::string_view record) {
  bool quoted = false;
  for (const char c : record) {
    if (c == '"') quoted = !quoted;
    if (!quoted && (c == ',' || c == ';' || c == '\t')) return c;
  }
  return ',';
}

// The place of the field `name` among `fields`, in any letter case; their number when it is not
// there once.
std::size_t s_find(const std::vector<std::string>& fields, std::string_view name) {
  const auto isName = [name](const std::string& field) {
    return stringCompareNoCase(trimmed(field), name, 0);
  };
  const auto found = std::find_if(fields.begin(), fields.end(), isName);
  const bool isOnce = std::count_if(fields.begin(), fields.end(), isName) == 1;
  return isOnce ? static_cast<std::size_t>(found - fields.begin()) : fields.size();
}

class CsvSyntax : public FileSyntax {
 public:
  explicit CsvSyntax(const TableFormat& table)
      : FileSyntax(FileFormat::Csv, table),
        m_key(table.hasPublic ? "private" : "address"),
        m_value(table.hasPublic ? "public" : "members") {}

  [[nodiscard]] std::string header() const override { return m_key + "," + m_value + "\r"; }

  void setColumns(const std::string& names) override {
    const std::size_t comma = names.find(',');
    m_key = trimmed(names.substr(0, comma));
    m_value = comma == std::string::npos ? "" : trimmed(names.substr(comma + 1));
    if (!m_key.empty() && !m_value.empty()) return;
    throw Failure(ExitCode::Usage, "--columns '" + names + "'", "it does not name two columns",
                  "give the names of two columns, as in --columns 'E-mail,Forward to'");
  }

  [[nodiscard]] std::optional<std::string> readHeader(std::string_view record) override {
    m_separator = s_separatorOf(record);
    std::vector<std::string> names;
    if (const auto fault = s_split(record, m_separator, names)) return fault->why;
    m_columns = names.size();
    m_keyColumn = s_find(names, m_key);
    m_valueColumn = s_find(names, m_value);
    for (const auto& [name, column] : {std::pair{m_key, m_keyColumn}, {m_value, m_valueColumn}}) {
      if (column == m_columns) return "the header does not have the column '" + name + "' once";
    }
    return std::nullopt;
  }

  std::optional<Fault> write(const TableEntry& entry, std::string& line) const override {
    line = s_field(entry.key.address()) + "," + s_field(entry.value()) + "\r";
    return std::nullopt;
  }

 private:
  std::optional<Fault> readRecord(std::string_view record, TableEntry& entry) override {
    std::vector<std::string> fields;
    if (auto fault = s_split(record, m_separator, fields)) return fault;
    if (fields.size() != m_columns) {
      return formatFault("its number of fields is " + std::to_string(fields.size()) + ", and not " +
                         std::to_string(m_columns) + " as in the header");
    }
    return readEntry(m_reader, fields[m_keyColumn], fields[m_valueColumn], entry);
  }

  std::string m_key;  // The names of the columns.
  std::string m_value;
  // As the header has them.
  char m_separator = ',';
  std::size_t m_columns = 2;
  std::size_t m_keyColumn = 0;
  std::size_t m_valueColumn = 1;
};

}  // namespace

std::unique_ptr<FileSyntax> makeCsvSyntax(const TableFormat& table) {
  return std::make_unique<CsvSyntax>(table);
}

}  // namespace Tessel::Tool
