// Comma-separated values (RFC 4180) with a header.
#include <algorithm>

#include "files/FileSyntax.h"

namespace Tessel::Tool {

namespace {

std::string s_field(const std::string& text) {
  if (text.find_first_of(",\"") == std::string::npos) return text;
  std::string field = "\"";
  for (const char c : text) field += c == '"' ? "\"\"" : std::string(1, c);
  return field + "\"";
}

// Removes the field at the start of `record`, up to the comma after it. Returns what is wrong, if
// anything is.
std::optional<Fault> s_takeField(std::string_view& record, std::string& field) {
  if (!record.starts_with('"')) {
    const std::size_t end = std::min(record.find(','), record.size());
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
  if (record.empty() || record.starts_with(',')) return std::nullopt;
  return formatFault("there is text after a closing quote");
}

class CsvSyntax : public FileSyntax {
 public:
  explicit CsvSyntax(const TableFormat& table) : FileSyntax(FileFormat::Csv, table) {}

  [[nodiscard]] std::string header() const override {
    return table().hasPublic ? "private,public\r" : "address,members\r";
  }

  std::optional<Fault> write(const TableEntry& entry, std::string& line) const override {
    line = s_field(entry.key.address()) + "," + s_field(entry.value()) + "\r";
    return std::nullopt;
  }

 private:
  std::optional<Fault> readRecord(std::string_view record, TableEntry& entry) override {
    std::string key;
    if (auto fault = s_takeField(record, key)) return fault;
    if (record.empty()) return formatFault("there is one field, not two");
    record.remove_prefix(1);
    std::string value;
    if (auto fault = s_takeField(record, value)) return fault;
    if (!record.empty()) return formatFault("there are more than two fields");
    return readEntry(m_reader, key, value, entry);
  }
};

}  // namespace

std::unique_ptr<FileSyntax> makeCsvSyntax(const TableFormat& table) {
  return std::make_unique<CsvSyntax>(table);
}

}  // namespace Tessel::Tool
