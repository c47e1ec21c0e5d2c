// The command `mask explain`: which row answers for an address, in both directions, and which
// others could have.
#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "AddressMapDb.h"
#include "base/stringCompareNoCase.h"
#include "cli/AddressInput.h"
#include "cli/Command.h"
#include "cli/RowReport.h"
#include "tables/MaskTable.h"
#include "tables/TableNames.h"
#include "tables/TextRows.h"

namespace Tessel::Tool {

namespace {

enum class Side { Public, Private };

// A row as it is in the table.
struct RowText {
  std::string privateText;
  std::string publicText;

  [[nodiscard]] std::string text() const {
    return printable(privateText) + " -> " + printable(publicText);
  }
  [[nodiscard]] Json json() const {
    return Json{{"private", printable(privateText)}, {"public", printable(publicText)}};
  }
};

struct Wildcard {
  RowText row;
  std::string privateDomain;
  std::string publicDomain;
};

// The answer of one direction, and where it comes from.
struct Answer {
  EmailAddress address;  // Null for none.
  const char* source = "none";
  std::vector<RowText> row;       // The one that answers, if any.
  std::vector<RowText> losers;    // Wildcard rows over which another one takes precedence.
  std::vector<RowText> shadowed;  // Wildcard rows that would answer without the row.
  std::vector<RowText> misspelt;  // Wildcard rows whose domain differs in letter case.
  std::string shadowedAddress;    // What the first of them would answer.
};

const char* s_text(Side side) {
  return side == Side::Public ? "public" : "private";
}

// Asks the library for the answers, and the table for the reasons.
class Explainer {
 public:
  explicit Explainer(const Session& session) : m_session(session) {
    // Preload is required: without it neither the table nor a wildcard row is ever asked.
    withTableFaultsNamed(session, TableKind::Mask,
                         [this] { m_store.emplace(AddressMapDb::MySQL, true); });
    readWildcards();
  }

  Answer explain(const EmailAddress& address, Side side) {
    Answer answer;
    withTableFaultsNamed(m_session, TableKind::Mask, [&] {
      const AddressMaskDb table = m_store->maskDb(m_session.tableName());
      answer.address = side == Side::Public ? table.findPublicAddress(address)
                                            : table.findPrivateAddress(address);
    });
    MaskTable table(maskTableName(m_session.tableName()));
    const auto rows = side == Side::Public ? table.withPrivate(address) : table.withPublic(address);
    const std::vector<Wildcard> matching = wildcards(address, side);
    for (const Wildcard& wildcard : m_wildcards) {
      if (isMisspelt(wildcard, address, side)) answer.misspelt.push_back(wildcard.row);
    }
    const auto own = std::find_if(rows.begin(), rows.end(), [&](const MaskRow& row) {
      return row.fault == RowFault::None && !answer.address.isNull() &&
             (side == Side::Public ? row.publicAddress : row.privateAddress) == answer.address;
    });
    if (own != rows.end()) {
      answer.source = "row";
      answer.row.push_back({own->privateText, own->publicText});
      for (const Wildcard& wildcard : matching) answer.shadowed.push_back(wildcard.row);
      if (!matching.empty()) {
        answer.shadowedAddress = addressBy(matching.front(), address, side);
      }
    } else if (!answer.address.isNull() && !matching.empty()) {
      answer.source = "wildcard";
      answer.row.push_back(matching.front().row);
      for (std::size_t i = 1; i < matching.size(); ++i) answer.losers.push_back(matching[i].row);
    }
    return answer;
  }

 private:
  // The rows as the library reads them: of several of one private domain the last one wins.
  void readWildcards() {
    Database::Connection connection{std::string(s_database)};
    const std::string statement = "select private, public from " +
                                  maskTableName(m_session.tableName()) +
                                  " where private like '%*%' or public like '%*%';";
    selectPairs(connection, statement,
                [this](std::string_view privateText, std::string_view publicText) {
                  if (privateText.empty() || publicText.empty()) return;
                  m_wildcards.push_back({{std::string(privateText), std::string(publicText)},
                                         EmailAddress::rfc5321Parse(privateText, false).domain(),
                                         EmailAddress::rfc5321Parse(publicText, false).domain()});
                });
  }

  // The wildcard rows for `address`, the one that answers first.
  [[nodiscard]] std::vector<Wildcard> wildcards(const EmailAddress& address, Side side) const {
    const std::string domain = address.domain();
    std::vector<Wildcard> matching;
    std::vector<Wildcard> overridden;
    for (auto wildcard = m_wildcards.rbegin(); wildcard != m_wildcards.rend(); ++wildcard) {
      if ((side == Side::Public ? wildcard->privateDomain : wildcard->publicDomain) != domain) {
        continue;
      }
      const bool counts = std::none_of(m_wildcards.rbegin(), wildcard, [&](const Wildcard& later) {
        return later.privateDomain == wildcard->privateDomain;
      });
      (counts ? matching : overridden).push_back(*wildcard);
    }
    std::sort(matching.begin(), matching.end(), [](const Wildcard& a, const Wildcard& b) {
      return a.privateDomain < b.privateDomain;
    });
    matching.insert(matching.end(), overridden.begin(), overridden.end());
    return matching;
  }

  static bool isMisspelt(const Wildcard& wildcard, const EmailAddress& address, Side side) {
    const std::string& domain =
        side == Side::Public ? wildcard.privateDomain : wildcard.publicDomain;
    return domain != address.domain() && stringCompareNoCase(domain, address.domain(), 0);
  }

  static std::string addressBy(const Wildcard& wildcard, const EmailAddress& address, Side side) {
    const std::string& domain =
        side == Side::Public ? wildcard.publicDomain : wildcard.privateDomain;
    try {
      return EmailAddress::create(address.local(), domain, true).address();
    } catch (const Exception&) {
      return "an address that is too long";
    }
  }

  const Session& m_session;
  std::optional<AddressMapDb> m_store;
  std::vector<Wildcard> m_wildcards;  // In the order of reading.
};

Json s_jsonOf(const std::vector<RowText>& rows) {
  Json list = Json::array();
  for (const RowText& row : rows) list.push_back(row.json());
  return list;
}

Json s_jsonOf(const Answer& answer) {
  Json document;
  document["address"] = answer.address.isNull() ? Json() : Json(answer.address.address());
  document["source"] = answer.source;
  document["row"] = answer.row.empty() ? Json() : answer.row.front().json();
  document["losers"] = s_jsonOf(answer.losers);
  document["shadowed"] = s_jsonOf(answer.shadowed);
  document["otherCase"] = s_jsonOf(answer.misspelt);
  return document;
}

void s_writeRows(Output& output, const std::string& what, const std::vector<RowText>& rows) {
  for (const RowText& row : rows) output.line("  " + what + row.text());
}

void s_write(Output& output, const Answer& answer, Side side) {
  const bool isNone = answer.address.isNull();
  output.line(std::string(s_text(side)) +
              " address: " + (isNone ? "none" : answer.address.address()));
  s_writeRows(output, std::string("from the ") + answer.source + " ", answer.row);
  s_writeRows(output,
              side == Side::Public
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
  const Answer shown = explainer.explain(address, Side::Public);
  const Answer hidden = explainer.explain(address, Side::Private);
  if (session.isJson()) {
    Json document{{"address", address.address()}};
    document["public"] = s_jsonOf(shown);
    document["private"] = s_jsonOf(hidden);
    session.output().document(document);
  } else {
    s_write(session.output(), shown, Side::Public);
    s_write(session.output(), hidden, Side::Private);
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
      Preparation::Database, [address](Session& session) { return s_explain(session, *address); });
  explain.argument("ADDRESS", *address, "A private or public address");
}

}  // namespace Tessel::Tool
