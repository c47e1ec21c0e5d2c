// The tables of Postfix: virtual(5) for aliases, canonical(5) for masks.
#include <set>
#include <string>
#include <utility>

#include "files/FileSyntax.h"

namespace Tessel::Tool {

namespace {

bool s_hasStar(const std::string& text) {
  return text.find('*') != std::string::npos;
}

class VirtualSyntax : public FileSyntax {
 public:
  VirtualSyntax(const TableFormat& table, std::string domain)
      : FileSyntax(FileFormat::Virtual, table), m_domain(std::move(domain)) {}

  std::optional<Fault> write(const TableEntry& entry, std::string& line) const override {
    std::string key = entry.key.address();
    std::string value = entry.value();
    if (table().hasPublic) {
      const bool isWildcard = s_hasStar(key) || s_hasStar(value);
      if (isWildcard && (entry.key.local() != "*" || entry.values.front().local() != "*")) {
        return formatFault("only '*@domain' with '*@domain' means whole domains there");
      }
      // After the "*", which needs no quotes.
      if (isWildcard) key.erase(0, 1);
      if (isWildcard) value.erase(0, 1);
    } else {
      for (const EmailAddress& member : entry.values) {
        if (member.domain().empty()) {
          return formatFault("the member '" + member.address() + "' has no domain");
        }
      }
    }
    if (key.starts_with('#')) return formatFault("a line that begins with '#' is a comment there");
    if (key.find(' ') != std::string::npos) return formatFault("a key ends at a blank there");
    line = key + " " + value;
    return std::nullopt;
  }

 private:
  std::optional<Fault> readRecord(std::string_view record, TableEntry& entry) override {
    const std::size_t end = record.find_first_of(s_blanks);
    if (end == 0) return formatFault("it continues a line, and there is none before it");
    if (end == std::string_view::npos) return formatFault("there is nothing after the key");
    const std::string_view key = record.substr(0, end);
    const std::string_view value = trimmed(record.substr(end));
    return table().hasPublic ? readPair(std::string(key), std::string(value), entry)
                             : readAlias(key, value, entry);
  }

  std::optional<Fault> readAlias(std::string_view key, std::string_view value, TableEntry& entry) {
    if (key.starts_with('@')) return formatFault("an alias cannot mean a whole domain");
    const bool mayLack = !m_domain.empty();
    std::set<EmailAddress> members;
    const auto why = addressFault([&] {
      for (const EmailAddress& member : EmailAddress::rfc5322ParseSet(value, mayLack, false)) {
        members.insert(withDomain(member));
      }
    });
    if (why) return Fault{RowFault::BadValue, "bad members: " + *why};
    EmailAddress alias;
    const bool isRead = mayLack && !addressFault([&] {
                          alias = withDomain(EmailAddress::rfc5321Parse(key, true));
                        });
    if (auto fault = readKey(isRead ? alias.address() : key, entry)) return fault;
    return setMembers(members, entry);
  }

  // `address` with the domain that is given for names without one.
  [[nodiscard]] EmailAddress withDomain(const EmailAddress& address) const {
    if (!address.domain().empty()) return address;
    return EmailAddress::create(address.local(), m_domain, false);
  }

  std::optional<Fault> readPair(std::string key, std::string value, TableEntry& entry) {
    const bool isDomain = key.starts_with('@');
    if (isDomain != value.starts_with('@')) {
      return formatFault("a whole domain can be shown as a whole domain only");
    }
    if (s_hasStar(key) || s_hasStar(value)) {
      return formatFault("a '*' would make it a pair of whole domains");
    }
    if (isDomain) key.insert(0, 1, '*');
    if (isDomain) value.insert(0, 1, '*');
    return readEntry(m_reader, key, value, entry);
  }

  std::string m_domain;
};

}  // namespace

std::unique_ptr<FileSyntax> makeVirtualSyntax(const TableFormat& table, std::string domain) {
  return std::make_unique<VirtualSyntax>(table, std::move(domain));
}

}  // namespace Tessel::Tool
