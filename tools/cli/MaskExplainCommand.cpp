// The command `mask explain`: which row answers for an address, in both directions, and which
// others could have.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "base/stringCompareNoCase.h"
#include "cli/AddressInput.h"
#include "cli/AddressLookup.h"
#include "cli/Command.h"
#include "tables/MaskTable.h"
#include "tables/TableNames.h"

namespace Tessel::Tool {

namespace {

// The answer of one direction, and where it comes from.
struct Answer {
  EmailAddress address;  // Null for none.
  const char* source = "none";
  std::vector<MaskRow> row;       // The one that answers, if any.
  std::vector<MaskRow> losers;    // Wildcard rows over which another one takes precedence.
  std::vector<MaskRow> shadowed;  // Wildcard rows that would answer without the row.
  std::vector<MaskRow> misspelt;  // Wildcard rows whose domain differs in letter case.
  std::string shadowedAddress;    // What the first of them would answer.
};

// Asks the library for the answers, and the table for the reasons.
class Explainer {
 public:
  explicit Explainer(const Session& session)
      : m_store(session, TableKind::Mask), m_table(maskTableName(session.tableName())) {
    // Fails at rows that cannot be read, so that there are none below.
    m_store.open();
    m_wildcards = m_table.wildcards();
  }

  Answer explain(const EmailAddress& asked, MaskSide side) {
    Answer answer;
    const auto rows = m_table.spelled(otherSide(side), asked);
    // The library finds no other spelling than that of the row.
    const EmailAddress& address = rows.empty() || rows.front().address(otherSide(side)).isNull()
                                      ? asked
                                      : rows.front().address(otherSide(side));
    answer.address = m_store.find(side, address);
    const std::vector<MaskRow> matching = wildcards(address, side);
    for (const MaskRow& wildcard : m_wildcards) {
      if (isMisspelt(wildcard, address, side)) answer.misspelt.push_back(wildcard);
    }
    if (answer.address.isNull()) return answer;
    const auto own = std::find_if(rows.begin(), rows.end(), [&](const MaskRow& row) {
      return row.fault == RowFault::None && row.address(side) == answer.address;
    });
    if (own != rows.end()) {
      answer.source = "row";
      answer.row.push_back(*own);
      answer.shadowed = matching;
      if (!matching.empty()) answer.shadowedAddress = addressBy(matching.front(), address, side);
    } else if (!matching.empty()) {
      answer.source = "wildcard";
      answer.row.push_back(matching.front());
      answer.losers.assign(matching.begin() + 1, matching.end());
    }
    return answer;
  }

 private:
  // The wildcard rows for `address`, the one that answers first.
  [[nodiscard]] std::vector<MaskRow> wildcards(const EmailAddress& address, MaskSide side) const {
    std::vector<MaskRow> matching;
    std::vector<MaskRow> overridden;
    // Of several rows of one private domain the last one wins.
    for (auto row = m_wildcards.rbegin(); row != m_wildcards.rend(); ++row) {
      if (row->address(otherSide(side)).domain() != address.domain()) continue;
      const bool counts = std::none_of(m_wildcards.rbegin(), row, [&](const MaskRow& later) {
        return later.privateAddress.domain() == row->privateAddress.domain();
      });
      (counts ? matching : overridden).push_back(*row);
    }
    std::sort(matching.begin(), matching.end(), [](const MaskRow& a, const MaskRow& b) {
      return a.privateAddress.domain() < b.privateAddress.domain();
    });
    matching.insert(matching.end(), overridden.begin(), overridden.end());
    return matching;
  }

  static bool isMisspelt(const MaskRow& wildcard, const EmailAddress& address, MaskSide side) {
    const std::string domain = wildcard.address(otherSide(side)).domain();
    return domain != address.domain() && stringCompareNoCase(domain, address.domain(), 0);
  }

  static std::string addressBy(const MaskRow& wildcard, const EmailAddress& address,
                               MaskSide side) {
    try {
      return EmailAddress::create(address.local(), wildcard.address(side).domain(), true).address();
    } catch (const Exception&) {
      return "an address that is too long";
    }
  }

  LookupStore m_store;
  MaskTable m_table;
  std::vector<MaskRow> m_wildcards;  // In the order in which the library reads them.
};

Json s_jsonOf(const std::vector<MaskRow>& rows) {
  Json list = Json::array();
  for (const MaskRow& row : rows) list.push_back(jsonOf(row));
  return list;
}

Json s_jsonOf(const Answer& answer) {
  Json document;
  document["address"] = answer.address.isNull() ? Json() : Json(answer.address.address());
  document["source"] = answer.source;
  document["row"] = answer.row.empty() ? Json() : jsonOf(answer.row.front());
  document["losers"] = s_jsonOf(answer.losers);
  document["shadowed"] = s_jsonOf(answer.shadowed);
  document["otherCase"] = s_jsonOf(answer.misspelt);
  return document;
}

void s_writeRows(Output& output, const std::string& what, const std::vector<MaskRow>& rows) {
  for (const MaskRow& row : rows) {
    output.line("  " + what + printable(row.privateText) + " -> " + printable(row.publicText));
  }
}

void s_write(Output& output, const Answer& answer, MaskSide side) {
  const bool isNone = answer.address.isNull();
  output.line(std::string(textOf(side)) +
              " address: " + (isNone ? "none" : answer.address.address()));
  s_writeRows(output, std::string("from the ") + answer.source + " ", answer.row);
  s_writeRows(output,
              side == MaskSide::Public
                  ? "not from the wildcard, which is read earlier: "
                  : "not from the wildcard, whose private domain comes later or is taken: ",
              answer.losers);
  s_writeRows(output, "in place of the wildcard ", answer.shadowed);
  if (!answer.shadowedAddress.empty()) {
    output.line("  without the row it would be " + answer.shadowedAddress);
  }
  s_writeRows(output,
              "not from the wildcard, whose domain has other letter case: ", answer.misspelt);
}

ExitCode s_explain(Session& session, const std::string& text) {
  const EmailAddress address = parseAddress(text, false);
  session.tellTarget(TableKind::Mask);
  Explainer explainer(session);
  const Answer shown = explainer.explain(address, MaskSide::Public);
  const Answer hidden = explainer.explain(address, MaskSide::Private);
  if (session.isJson()) {
    Json document{{"address", address.address()}};
    document["public"] = s_jsonOf(shown);
    document["private"] = s_jsonOf(hidden);
    session.output().document(document);
  } else {
    s_write(session.output(), shown, MaskSide::Public);
    s_write(session.output(), hidden, MaskSide::Private);
  }
  const bool isFound = !shown.address.isNull() || !hidden.address.isNull();
  return isFound ? ExitCode::Done : ExitCode::NotFound;
}

}  // namespace

void addMaskExplainCommand(Command& mask) {
  const auto address = std::make_shared<std::string>();
  Command explain = mask.command(
      "explain", "Show which row answers for an address, in both directions; exit 1 when none does",
      "  tsl-address-map mask explain ann@inner.example\n"
      "Shows the public address of ADDRESS as a private one, and its private address as a public"
      " one. Names the row\nor wildcard row that each comes from, and the rows over which that one"
      " takes precedence.\n"
      "With --json {\"address\", \"public\", \"private\"}, either being {\"address\", \"source\","
      " \"row\", \"losers\",\n\"shadowed\", \"otherCase\"}; the source is row, wildcard or none.\n",
      Preparation::Database, withArguments(s_explain, address));
  explain.argument("ADDRESS", *address, "A private or public address");
}

}  // namespace Tessel::Tool
