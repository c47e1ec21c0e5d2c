// The tool's own format: KEY:VALUE.
#include "files/FileSyntax.h"

namespace Tessel::Tool {

namespace {

class NativeSyntax : public FileSyntax {
 public:
  explicit NativeSyntax(const TableFormat& table) : FileSyntax(FileFormat::Native, table) {}

  std::optional<Fault> write(const TableEntry& entry, std::string& line) const override {
    line = entry.line();
    return std::nullopt;
  }

 private:
  std::optional<Fault> readRecord(std::string_view record, TableEntry& entry) override {
    const std::size_t end = endOfKey(record);
    if (end == std::string_view::npos) return formatFault("there is no colon after an address");
    return readEntry(m_reader, record.substr(0, end), record.substr(end + 1), entry);
  }
};

}  // namespace

std::unique_ptr<FileSyntax> makeNativeSyntax(const TableFormat& table) {
  return std::make_unique<NativeSyntax>(table);
}

}  // namespace Tessel::Tool
