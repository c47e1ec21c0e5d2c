// The command `alias tree`: how an alias expands, step by step.
#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "cli/AddressInput.h"
#include "cli/AliasEdit.h"
#include "cli/Command.h"
#include "cli/RowReport.h"
#include "tables/AddressKey.h"
#include "tables/AliasGraph.h"
#include "tables/AliasTree.h"
#include "tables/Extension.h"
#include "tables/MailUsers.h"
#include "tables/TableNames.h"
#include "terminal/Say.h"
#include "terminal/Terminal.h"

namespace Tessel::Tool {

namespace {

// Deeper addresses are shown with their depth as a number: the lines of a long chain would be
// mostly blanks otherwise.
constexpr std::uint32_t s_deepestIndent = 30;
// Longer members texts are cut for people.
constexpr std::size_t s_longestRow = 200;

constexpr char s_spelledNote[] = ", which the lookup service follows, and the library does not";

constexpr char s_outcomeFound[] = "found";
constexpr char s_outcomeNothing[] = "expands-to-nothing";
constexpr char s_outcomeBroken[] = "broken-row";

struct TreeArguments {
  std::string address;
  bool dot = false;
};

// `document` as one line, without the brace at the end.
std::string s_openText(const Json& document) {
  std::string text = document.dump(-1, ' ', false, Json::error_handler_t::replace);
  text.pop_back();
  return text;
}

// `text` as a quoted string of the graph language.
std::string s_quoted(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : printable(text)) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

// A tree with what the configuration says about its addresses, and the answer that it comes to.
class Explanation {
 public:
  // `rules` by the comparisonKey() of the alias.
  Explanation(const Session& session, AliasTree& tree, std::map<std::string, std::string> rules)
      : m_session(session), m_tree(tree), m_finals(tree.finals()), m_rules(std::move(rules)) {
    for (const AliasTree::Node& node : tree.nodes()) m_depth = std::max(m_depth, node.depth);
    if (m_tree.isAllUsers()) replaceMarker();
    for (const AliasTree::Node& node : tree.nodes()) {
      ++m_counts.at(static_cast<std::size_t>(node.kind));
      if (node.kind == NodeKind::Final && isNobody(node)) m_dangling.insert(*node.address);
    }
  }

  [[nodiscard]] const std::set<EmailAddress>& finals() const { return m_finals; }
  [[nodiscard]] std::size_t count(NodeKind kind) const {
    return m_counts.at(static_cast<std::size_t>(kind));
  }

  // True for an address that mail is delivered to although nobody has it.
  [[nodiscard]] bool isDangling(const AliasTree::Node& node) const {
    return node.kind == NodeKind::Final && m_dangling.count(*node.address) != 0;
  }

  [[nodiscard]] const char* outcome() const {
    if (count(NodeKind::Broken) != 0) return s_outcomeBroken;
    return m_finals.empty() ? s_outcomeNothing : s_outcomeFound;
  }

  // Reports what is missing in the answer. The exit status.
  [[nodiscard]] ExitCode tell() const {
    for (const AliasTree::Node& node : m_tree.nodes()) {
      if (node.kind != NodeKind::Broken) continue;
      report(brokenRow(*node.row, aliasTableName(m_session.tableName())));
    }
    if (count(NodeKind::Broken) != 0) return ExitCode::BadData;
    if (m_tree.isAllUsers() && m_users.failure()) {
      report(*m_users.failure());
      return m_users.failure()->code();
    }
    return m_finals.empty() ? ExitCode::NotFound : ExitCode::Done;
  }

  // A note on `node`, in addition to its kind; empty for none.
  [[nodiscard]] std::string note(const AliasTree::Node& node) const {
    switch (node.kind) {
      case NodeKind::Repeated:
        return "expanded above";
      case NodeKind::Cycle:
        return "leads back to an alias above, and is left out";
      case NodeKind::SelfDelivery:
        return "the alias names itself, and is delivered to";
      case NodeKind::AllUsers:
        return m_users.failure() ? "user mailboxes: unknown, the configuration cannot be read"
                                 : "user mailboxes: " + std::to_string(m_finals.size());
      case NodeKind::MissingDomain:
        return "the configuration has no such domain, so the marker stays as it is";
      case NodeKind::Marker:
        return "the marker stays as it is: it is not the only address reached, or not of the "
               "domain "
               "of the alias that is expanded";
      default:
        return noteOnAddress(node);
    }
  }

  [[nodiscard]] Json jsonOf(const AliasTree::Node& node) const {
    Json document{{"address", node.address->address()}, {"kind", textOf(node.kind)}};
    const std::string rule = ruleOf(node);
    if (!rule.empty()) document["rule"] = rule;
    document["row"] = node.row == nullptr ? Json() : Json(printable(node.row->text));
    const std::string text = note(node);
    document["note"] = text.empty() ? Json() : Json(text);
    const bool isKnown = node.kind == NodeKind::Final && !m_users.failure();
    document["dangling"] = isKnown ? Json(m_dangling.count(*node.address) != 0) : Json();
    const bool isCounted = node.kind == NodeKind::AllUsers && !m_users.failure();
    document["users"] = isCounted ? Json(m_finals.size()) : Json();
    return document;
  }

  [[nodiscard]] Json totals() const {
    Json document{{"depth", m_depth}, {"aliases", count(NodeKind::Alias)}};
    document["finals"] = m_finals.size();
    document["repeated"] = count(NodeKind::Repeated);
    document["cycles"] = count(NodeKind::Cycle);
    document["dangling"] = m_users.failure() ? Json() : Json(m_dangling.size());
    return document;
  }

  [[nodiscard]] std::string summary() const {
    std::string text = "depth " + std::to_string(m_depth);
    text += ", aliases: " + std::to_string(count(NodeKind::Alias));
    text += ", final addresses: " + std::to_string(m_finals.size());
    text += ", repeated: " + std::to_string(count(NodeKind::Repeated));
    text += ", cycles: " + std::to_string(count(NodeKind::Cycle));
    text += ", dangling: ";
    return text + (m_users.failure() ? "unknown" : std::to_string(m_dangling.size()));
  }

  // The rule of an alias whose members are shown; empty for none.
  [[nodiscard]] std::string ruleOf(const AliasTree::Node& node) const {
    if (node.kind != NodeKind::Alias) return "";
    const auto rule = m_rules.find(comparisonKey(node.address->address()));
    return rule == m_rules.end() ? "" : rule->second;
  }

 private:
  void replaceMarker() {
    const std::string domain = m_tree.nodes().front().address->domain();
    const auto count = m_users.mailboxes(domain);
    m_tree.setMarker(count || m_users.failure() ? NodeKind::AllUsers : NodeKind::MissingDomain);
    if (!count && !m_users.failure()) return;
    m_finals.clear();
    for (const std::string& user : m_users.mailboxesOf(domain)) {
      m_finals.insert(EmailAddress::rfc5322Parse(user, true));
    }
  }

  bool isNobody(const AliasTree::Node& node) {
    if (node.base != nullptr) return false;
    const std::string text = node.address->address();
    const std::string base = withoutExtension(text);
    return m_users.kindOf(text) == MailUsers::Kind::Nobody &&
           (base.empty() || m_users.kindOf(base) == MailUsers::Kind::Nobody);
  }

  [[nodiscard]] std::string noteOnAddress(const AliasTree::Node& node) const {
    std::string text;
    if (node.row != nullptr && node.kind != NodeKind::Alias) text = node.row->why;
    if (node.isSpelled() && node.depth != 0)
      text = "the row of " + printable(node.row->name) + s_spelledNote;
    if (node.base != nullptr)
      text = "mail servers find the alias " + node.base->address() + " here";
    if (m_dangling.count(*node.address) == 0) return text;
    return text + (text.empty() ? "" : "; ") +
           "dangling: neither an alias nor a mail user of its domain";
  }

  const Session& m_session;
  AliasTree& m_tree;
  MailUsers m_users;
  std::set<EmailAddress> m_finals;
  std::set<EmailAddress> m_dangling;
  std::map<std::string, std::string> m_rules;
  std::array<std::size_t, static_cast<std::size_t>(NodeKind::Broken) + 1> m_counts{};
  std::uint32_t m_depth = 0;
};

// The members text of `row` for people.
std::string s_shown(const AliasRow& row) {
  std::string text = printable(row.text.substr(0, s_longestRow));
  if (row.text.size() > s_longestRow) {
    text += "... (" + std::to_string(row.text.size()) + " bytes)";
  }
  return text;
}

Tone s_tone(NodeKind kind) {
  switch (kind) {
    case NodeKind::Broken:
      return Tone::Bad;
    case NodeKind::Cycle:
    case NodeKind::MissingDomain:
    case NodeKind::Marker:
      return Tone::Doubtful;
    default:
      return Tone::Plain;
  }
}

void s_writeLines(Output& output, const AliasTree& tree, const Explanation& explanation) {
  for (const AliasTree::Node& node : tree.nodes()) {
    std::string line(2UL * std::min(node.depth, s_deepestIndent), ' ');
    if (node.depth > s_deepestIndent) line += "(" + std::to_string(node.depth) + ") ";
    line += node.address->address() + ": " +
            coloured(Stream::Output, s_tone(node.kind), textOf(node.kind));
    if (node.kind == NodeKind::Alias) line += " [" + s_shown(*node.row) + "]";
    const std::string note = explanation.note(node);
    if (!note.empty()) {
      const Tone tone = explanation.isDangling(node) ? Tone::Doubtful : Tone::Plain;
      line += " (" + coloured(Stream::Output, tone, note) + ")";
    }
    const std::string rule = explanation.ruleOf(node);
    if (!rule.empty()) line += " (rule: " + printable(rule) + ")";
    output.line(line);
  }
  output.line(explanation.summary());
}

// One document, written node by node: a chain may be too deep for the writer of the JSON library.
void s_writeJson(Output& output, const AliasTree& tree, const Explanation& explanation) {
  Json head{{"address", tree.nodes().front().address->address()}};
  head["outcome"] = explanation.outcome();
  head["totals"] = explanation.totals();
  head["finals"] = jsonOf(explanation.finals());
  output.line(s_openText(head) + ",\"tree\":");
  const auto& nodes = tree.nodes();
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    std::string line = s_openText(explanation.jsonOf(nodes[i])) + ",\"members\":[";
    const std::uint32_t next = i + 1 < nodes.size() ? nodes[i + 1].depth : 0;
    // After a node without a deeper one, its own braces and those of its completed parents are
    // closed.
    for (std::uint32_t depth = nodes[i].depth + 1; depth > next; --depth) line += "]}";
    if (next != 0 && next <= nodes[i].depth) line += ",";
    output.line(line);
  }
  output.line("}");
}

const char* s_style(NodeKind kind) {
  switch (kind) {
    case NodeKind::Alias:
    case NodeKind::Repeated:
    case NodeKind::Cycle:
    case NodeKind::SelfDelivery:
      return "shape=box";
    case NodeKind::AllUsers:
      return "shape=doublecircle";
    case NodeKind::MissingDomain:
    case NodeKind::Marker:
    case NodeKind::Broken:
      return "shape=octagon, color=red";
    default:
      return "shape=ellipse";
  }
}

void s_writeDot(Output& output, const AliasTree& tree, const Explanation& explanation) {
  output.line("digraph aliases {");
  output.line("  rankdir=LR;");
  std::set<EmailAddress> declared;
  for (const AliasTree::Node& node : tree.nodes()) {
    const std::string name = s_quoted(node.address->address());
    if (declared.insert(*node.address).second) {
      const std::string note = explanation.note(node);
      output.line("  " + name + " [" + s_style(node.kind) +
                  (note.empty() ? "" : ", tooltip=" + s_quoted(note)) + "];");
    }
    if (&node == &tree.nodes().front()) continue;
    const std::string from = s_quoted(tree.nodes()[node.parent].address->address());
    const char* const back = node.kind == NodeKind::Cycle ? " [label=\"cycle\", color=red]" : "";
    output.line(std::string("  ").append(from).append(" -> ").append(name).append(back) + ";");
  }
  output.line("}");
}

ExitCode s_tree(Session& session, const TreeArguments& arguments) {
  const EmailAddress address = parseAddress(arguments.address, false);
  if (arguments.dot && session.isJson()) {
    throw Failure(ExitCode::Usage, "--json and --dot", "both say how to write the tree",
                  "give one of them");
  }
  session.tellTarget(TableKind::Alias);
  AliasTable table(aliasTableName(session.tableName()));
  AliasLook look = table.look(address);
  AliasTree tree(table, baseOf(table, address, look).value_or(address));
  tellSpelling(address, look);
  if (tree.row() == nullptr) {
    say(noAlias(address, session));
    if (session.isJson()) {
      Json document{{"address", address.address()}, {"outcome", "no-alias"}};
      document["totals"] = Json();
      document["finals"] = Json::array();
      document["tree"] = Json();
      session.output().document(document);
    }
    return ExitCode::NotFound;
  }
  if (tree.row()->fault == RowFault::EmptyValue) {
    throw brokenRow(*tree.row(), aliasTableName(session.tableName()));
  }
  const Explanation explanation(session, tree, table.rules().texts());
  if (arguments.dot) {
    s_writeDot(session.output(), tree, explanation);
  } else if (session.isJson()) {
    s_writeJson(session.output(), tree, explanation);
  } else {
    s_writeLines(session.output(), tree, explanation);
  }
  session.output().flush();
  return explanation.tell();
}

}  // namespace

void addAliasTreeCommand(Command& alias) {
  const auto arguments = std::make_shared<TreeArguments>();
  Command tree = alias.command(
      "tree", "Show how an alias expands, step by step; exit 1 when it is not an alias",
      "  tsl-address-map alias tree team@example.com\n"
      "  tsl-address-map alias tree team@example.com --dot | dot -Tsvg >team.svg\n"
      "One address per line, the members of an alias indented below it: ADDRESS: KIND [MEMBERS]"
      " (NOTE). The kinds:\nfinal, alias, repeated, cycle, self-delivery, all-users,"
      " missing-domain, marker, broken. The last line counts\nthem.\n"
      "With --json {\"address\", \"outcome\", \"totals\", \"finals\", \"tree\"}, a tree being"
      " {\"address\", \"kind\", \"row\", \"note\",\n\"dangling\", \"users\", \"members\"}.\n",
      Preparation::Database, withArguments(s_tree, arguments));
  tree.argument("ADDRESS", arguments->address, "The alias");
  tree.flag("--dot", arguments->dot, "Write a graph in the language of Graphviz");
}

}  // namespace Tessel::Tool
