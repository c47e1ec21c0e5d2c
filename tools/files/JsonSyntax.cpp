// One JSON object per line, also as the lines of a list.
#include <set>
#include <string>

#include <nlohmann/json.hpp>

#include "files/FileSyntax.h"

namespace Tessel::Tool {

namespace {

class JsonSyntax : public FileSyntax {
 public:
  explicit JsonSyntax(const TableFormat& table)
      : FileSyntax(FileFormat::JsonLines, table),
        m_key(table.hasPublic ? "private" : "address"),
        m_value(table.hasPublic ? "public" : "members") {}

  [[nodiscard]] bool isFiller(std::string_view record) const override {
    return jsonObjectIn(record).empty();
  }

  std::optional<Fault> write(const TableEntry& entry, std::string& line) const override {
    nlohmann::ordered_json object;
    object[m_key] = entry.key.address();
    auto& value = object[m_value];
    if (table().hasPublic) {
      value = entry.value();
    } else {
      for (const EmailAddress& member : entry.values) value.push_back(member.address());
    }
    line = object.dump();
    return std::nullopt;
  }

 private:
  std::optional<Fault> readRecord(std::string_view record, TableEntry& entry) override {
    std::set<std::string> keys;
    std::string twice;
    const auto checkKey = [&](int depth, nlohmann::json::parse_event_t event,
                              const nlohmann::json& parsed) {
      const bool isKey = event == nlohmann::json::parse_event_t::key && depth == 1;
      if (isKey && !keys.insert(parsed).second) twice = parsed;
      return true;
    };
    const auto object = nlohmann::json::parse(jsonObjectIn(record), checkKey, false);
    if (!twice.empty()) return formatFault("the key '" + twice + "' is there twice");
    if (!object.is_object()) return formatFault("it is not a JSON object");
    if (object.size() != 2 || !object.contains(m_key) || !object.contains(m_value)) {
      return formatFault(std::string("it does not have the keys '") + m_key + "' and '" + m_value +
                         "'");
    }
    if (!object[m_key].is_string()) {
      return formatFault(std::string("'") + m_key + "' is not a string");
    }
    const std::string key = object[m_key];
    const auto& value = object[m_value];
    if (table().hasPublic) {
      if (!value.is_string()) return formatFault("'public' is not a string");
      return readEntry(m_reader, key, value.get<std::string>(), entry);
    }
    if (!value.is_array()) return formatFault("'members' is not a list");
    std::set<EmailAddress> members;
    for (const auto& item : value) {
      if (!item.is_string()) {
        return formatFault("'members' contains something that is not a string");
      }
      if (auto fault = addMember(item, members)) return fault;
    }
    if (auto fault = readKey(key, entry)) return fault;
    return setMembers(members, entry);
  }

  static std::optional<Fault> addMember(const std::string& text, std::set<EmailAddress>& members) {
    if (text.find('\0') != std::string::npos) {
      return Fault{RowFault::BadValue, "it contains a NUL character"};
    }
    EmailAddress member;
    const auto why = addressFault([&] { member = EmailAddress::rfc5321Parse(text, true); });
    if (why) return Fault{RowFault::BadValue, *why};
    if (member.isNull()) return Fault{RowFault::BadValue, "a member is empty"};
    members.insert(member);
    return std::nullopt;
  }

  const char* m_key;
  const char* m_value;
};

}  // namespace

std::string_view jsonObjectIn(std::string_view line) {
  line = trimmed(line);
  if (line.starts_with('[') || line.starts_with(',')) line.remove_prefix(1);
  if (line.ends_with(']') || line.ends_with(',')) line.remove_suffix(1);
  return trimmed(line);
}

std::unique_ptr<FileSyntax> makeJsonSyntax(const TableFormat& table) {
  return std::make_unique<JsonSyntax>(table);
}

}  // namespace Tessel::Tool
