// The alias file of a mail system, aliases(5).
#include <utility>
#include <vector>

#include "files/FileSyntax.h"

namespace Tessel::Tool {

namespace {

// What aliases(5) does with the target `text` instead of delivering to an address; null when it is
// one.
const char* s_specialUse(std::string_view text) {
  if (text.starts_with("error:")) return "it refuses the mail";
  if (text.starts_with('"')) text.remove_prefix(1);
  if (text.starts_with('|')) return "it delivers to a command";
  if (text.starts_with('/')) return "it delivers to a file";
  if (text.starts_with(":include:")) return "it includes a file";
  return nullptr;
}

// The items of a list, which commas outside of quotes separate, without the blanks around them.
std::vector<std::string_view> s_items(std::string_view text) {
  std::vector<std::string_view> items;
  bool quoted = false;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || (text[i] == ',' && !quoted)) {
      const std::string_view item = trimmed(text.substr(start, i - start));
      if (!item.empty()) items.push_back(item);
      start = i + 1;
    } else if (quoted && text[i] == '\\') {
      ++i;
    } else if (text[i] == '"') {
      quoted = !quoted;
    }
  }
  return items;
}

class AliasesSyntax : public FileSyntax {
 public:
  AliasesSyntax(const TableFormat& table, std::string domain)
      : FileSyntax(FileFormat::Aliases, table), m_domain(std::move(domain)) {}

  std::optional<Fault> write(const TableEntry& entry, std::string& line) const override {
    if (entry.key.domain() != m_domain) {
      return formatFault("names have no domain there, and its own is not '" + m_domain + "'");
    }
    if (entry.key.local().empty()) return formatFault("a name cannot be empty there");
    const std::string address = entry.key.address();
    std::string name = address.substr(0, address.size() - m_domain.size() - 1);
    // Quotes that an address does not need change nothing.
    if (name.starts_with('#')) name = "\"" + name + "\"";
    for (const EmailAddress& member : entry.values) {
      const std::string text = "the member '" + member.address() + "'";
      if (member.domain().empty()) return formatFault(text + " has no domain");
      const char* const use = s_specialUse(member.address());
      if (use != nullptr) return formatFault(text + " means something else there: " + use);
    }
    line = name + ": " + entry.value();
    return std::nullopt;
  }

 private:
  std::optional<Fault> readRecord(std::string_view record, TableEntry& entry) override {
    if (s_blanks.find(record.front()) != std::string_view::npos) {
      return formatFault("it continues a line, and there is none before it");
    }
    const std::size_t end = endOfKey(record);
    if (end == std::string_view::npos) return formatFault("there is no colon after a name");
    if (const auto why = readName(trimmed(record.substr(0, end)), entry.key)) {
      return Fault{RowFault::BadKey, "bad name: " + *why};
    }
    std::set<EmailAddress> members;
    for (const std::string_view item : s_items(record.substr(end + 1))) {
      if (const char* const use = s_specialUse(item)) {
        return Fault{RowFault::BadValue,
                     "the target '" + std::string(item) + "' is not an address: " + use};
      }
      EmailAddress member;
      if (const auto why = readName(item, member)) {
        return Fault{RowFault::BadValue, "bad members: " + *why};
      }
      members.insert(member);
    }
    return setMembers(members, entry);
  }

  // Reads the address `item`, with the domain given for names that have none. Returns why it
  // cannot, if so.
  [[nodiscard]] std::optional<std::string> readName(std::string_view item,
                                                    EmailAddress& address) const {
    if (auto why = addressFault([&] { address = EmailAddress::rfc5322Parse(item, true); })) {
      return why;
    }
    if (address.isNull()) return "it is empty";
    if (!address.domain().empty()) return std::nullopt;
    if (m_domain.empty()) {
      return "'" + std::string(item) + "' has no domain; --default-domain gives one to such names";
    }
    return addressFault([&] { address = EmailAddress::create(address.local(), m_domain, false); });
  }

  std::string m_domain;
};

}  // namespace

std::unique_ptr<FileSyntax> makeAliasesSyntax(const TableFormat& table, std::string domain) {
  return std::make_unique<AliasesSyntax>(table, std::move(domain));
}

}  // namespace Tessel::Tool
