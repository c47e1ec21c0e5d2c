// The commands on the rules of aliases: set, show, list, remove, export, import.
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/AddressInput.h"
#include "cli/AliasEdit.h"
#include "cli/Command.h"
#include "cli/DryRun.h"
#include "cli/RowReport.h"
#include "cli/RuleFile.h"
#include "files/ExportFile.h"
#include "files/Lines.h"
#include "files/TableFile.h"
#include "tables/AddressKey.h"
#include "tables/AliasTable.h"
#include "tables/RuleTable.h"
#include "tables/TableNames.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

// What is written in place of an alias for the rule of a table, and of a value to take it away.
constexpr char s_default[] = "default";
constexpr char s_none[] = "none";

struct RuleArguments {
  std::string alias;
  std::optional<std::string> writers;
  std::vector<std::string> listed;
  std::vector<std::string> owners;
  std::optional<std::string> expires;
  std::optional<std::string> note;
  std::optional<std::string> contact;
  std::string domain;
  std::string file;
  bool replace = false;
  bool dryRun = false;
};

// The alias that is meant; null for the rule of the table.
EmailAddress s_parseAlias(const std::string& text) {
  return text == s_default ? EmailAddress() : parseAddress(text, false);
}

std::string s_nameOf(const std::string& name) {
  return name.empty() ? s_default : name;
}

Failure s_wrong(const char* option, const std::string& value, const std::string& why,
                const std::string& hint) {
  return {ExitCode::Usage, std::string(option) + " " + value, why, hint};
}

void s_take(std::set<EmailAddress>& addresses, const std::vector<std::string>& given) {
  if (given.empty()) return;
  addresses.clear();
  if (given.size() == 1 && given.front() == s_none) return;
  for (const std::string& text : given) addresses.insert(parseAddress(text, false));
}

void s_takeNote(AliasRule& rule, const std::string& text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) >= ' ') continue;
    throw s_wrong("--note", text, "it has more than one line, or control characters",
                  "write it on one line");
  }
  rule.note = text == s_none ? "" : text;
}

// `rule` with what the command line says.
AliasRule s_changed(AliasRule rule, const RuleArguments& arguments) {
  if (arguments.writers) {
    const auto writers = parseWriters(*arguments.writers);
    if (!writers) {
      throw s_wrong("--writers", *arguments.writers, "there are no such writers",
                    "use anyone, authenticated, domain, members or listed");
    }
    rule.writers = *writers;
  }
  s_take(rule.listed, arguments.listed);
  s_take(rule.owners, arguments.owners);
  if (arguments.expires) {
    rule.expires = parseTime(*arguments.expires);
    if (!rule.expires && *arguments.expires != s_none) {
      throw s_wrong("--expires", *arguments.expires, "it is not a time",
                    "write it as 2026-12-31 or 2026-12-31T18:00:00, in UTC, or none");
    }
  }
  if (arguments.note) s_takeNote(rule, *arguments.note);
  if (arguments.contact) {
    const bool isNone = *arguments.contact == s_none;
    rule.contact = isNone ? EmailAddress() : parseAddress(*arguments.contact, false);
  }
  return rule;
}

void s_requireSense(const AliasRule& rule, const EmailAddress& alias) {
  if (alias.isNull() && rule.expires) {
    throw Failure(ExitCode::Usage, "--expires", "all aliases of the table would end",
                  "give the alias that is to end");
  }
  if (rule.writers == Writers::Listed || rule.listed.empty()) return;
  throw Failure(ExitCode::Usage, "--list",
                std::string("the writers are ") + textOf(rule.writers) + ", not those in a list",
                "add --writers listed, or take the list away with --list none");
}

Json s_jsonOf(const std::string& name, const std::optional<AliasRule>& rule) {
  Json document{{"address", name.empty() ? Json() : Json(name)}};
  document["rule"] = rule ? jsonOf(*rule) : Json();
  return document;
}

// The alias whose rule is written, as its row spells it. Throws Failure when there is no such row.
std::string s_nameToWrite(AliasTable& table, const EmailAddress& alias, const Session& session) {
  if (alias.isNull()) return "";
  const AliasLook look = table.lookLocked(alias);
  if (look.kind == AliasLook::Kind::Present || look.kind == AliasLook::Kind::Spelled) {
    return look.row.name;
  }
  throw Failure(ExitCode::BadData, "alias rule set", noAlias(alias, session),
                "add the alias first; 'default' is the rule of all aliases without one of their"
                " own");
}

void s_warn(const AliasRule& rule, const std::string& name) {
  if (rule.writers == Writers::Listed && rule.listed.empty()) {
    say("warning: the rule of " + s_nameOf(name) + " lists nobody, so nobody may write to it");
  }
}

std::string s_changeLine(const std::string& name, const std::optional<RuleRow>& before,
                         const AliasRule& rule) {
  const std::string now = s_nameOf(name) + " " + ruleText(rule);
  if (!before) return "+ " + now;
  const std::string then = before->rule ? ruleText(*before->rule) : "unreadable";
  return then == ruleText(rule) ? "" : "~ " + now + " (was " + then + ")";
}

ExitCode s_set(Session& session, const RuleArguments& arguments) {
  const EmailAddress alias = s_parseAlias(arguments.alias);
  s_changed({}, arguments);  // For what is wrong in any case.
  session.tellTarget(TableKind::Alias);
  AliasTable table(aliasTableName(session.tableName()));
  std::string name;
  std::optional<RuleRow> before;
  AliasRule rule;
  table.transact([&] {
    name = s_nameToWrite(table, alias, session);
    before = table.rules().look(alias);
    if (before && !before->rule) throw brokenRule(s_nameOf(before->name));
    rule = s_changed(before ? *before->rule : AliasRule(), arguments);
    s_requireSense(rule, alias);
    if (arguments.dryRun) return false;
    if (before && before->name != name) table.rules().remove(table.change(), before->name);
    table.rules().set(table.change(), name, rule);
    return true;
  });
  s_warn(rule, name);
  answerChange(session, s_jsonOf(name, rule), s_changeLine(name, before, rule), arguments.dryRun);
  return ExitCode::Done;
}

ExitCode s_tellNone(const EmailAddress& alias) {
  say("no rule of " + s_nameOf(alias.address()));
  return ExitCode::NotFound;
}

ExitCode s_show(Session& session, const RuleArguments& arguments) {
  const EmailAddress alias = s_parseAlias(arguments.alias);
  session.tellTarget(TableKind::Alias);
  const auto row = AliasTable(aliasTableName(session.tableName())).rules().look(alias);
  if (row && !row->rule) throw brokenRule(s_nameOf(row->name));
  if (session.isJson()) {
    session.output().document(s_jsonOf(alias.address(), row ? row->rule : std::nullopt));
  } else if (row) {
    session.output().line(printable(ruleText(*row->rule)));
  }
  return row ? ExitCode::Done : s_tellNone(alias);
}

ExitCode s_list(Session& session, const RuleArguments& arguments) {
  const std::string domain = arguments.domain.empty() ? "" : parseDomain(arguments.domain);
  session.tellTarget(TableKind::Alias);
  ExitCode code = ExitCode::Done;
  ItemList list(session.output());
  for (const RuleRow& row : AliasTable(aliasTableName(session.tableName())).rules().rows(domain)) {
    if (!row.rule) {
      report(brokenRule(s_nameOf(row.name)));
      code = ExitCode::BadData;
      continue;
    }
    list.add(printable(s_nameOf(row.name)) + "\t" + printable(ruleText(*row.rule)),
             [&row] { return s_jsonOf(row.name, row.rule); });
  }
  list.end();
  return code;
}

ExitCode s_remove(Session& session, const RuleArguments& arguments) {
  const EmailAddress alias = s_parseAlias(arguments.alias);
  session.tellTarget(TableKind::Alias);
  AliasTable table(aliasTableName(session.tableName()));
  std::optional<RuleRow> row;
  table.transact([&] {
    row = table.rules().look(alias);
    return row && !arguments.dryRun && table.rules().remove(table.change(), row->name);
  });
  const std::string line =
      row ? "- " + s_nameOf(row->name) + " " + (row->rule ? ruleText(*row->rule) : "unreadable")
          : "";
  answerChange(session, Json{{"address", arguments.alias}, {"removed", row.has_value()}}, line,
               arguments.dryRun);
  return row ? ExitCode::Done : s_tellNone(alias);
}

struct RuleLine {
  EmailAddress alias;
  AliasRule rule;
};

// The lines of the file. Throws Failure after a report of the bad ones.
std::vector<RuleLine> s_readFile(const std::string& path) {
  const std::string name = path == "-" ? "standard input" : path;
  LineFaults faults(name);
  std::vector<RuleLine> rules;
  Lines lines(path, name);
  std::string_view line;
  while (lines.next(line)) {
    if (line.empty() || line.starts_with('#')) continue;
    try {
      const std::string_view alias = line.substr(0, line.find('\t'));
      if (alias.size() == line.size()) throw Failure(ExitCode::BadData, "", "it has no tab", "");
      rules.push_back({s_parseAlias(std::string(alias)),
                       parseRule(std::string(line.substr(alias.size() + 1)))});
    } catch (const Failure& failure) {
      faults.add(lines.number(), failure.why());
    }
  }
  faults.refuse("it has lines that are no rules");
  return rules;
}

// Removes the rules that the file does not mention; what becomes of them.
std::vector<std::string> s_removeOthers(AliasTable& table, const std::vector<RuleLine>& rules,
                                        bool dryRun) {
  std::set<std::string> mentioned;
  for (const RuleLine& line : rules) mentioned.insert(comparisonKey(line.alias.address()));
  std::vector<std::string> changes;
  for (const auto& [key, text] : table.rules().texts()) {
    if (mentioned.contains(key)) continue;
    changes.push_back("- " + s_nameOf(key) + " " + text);
  }
  for (const RuleRow& row : table.rules().rows()) {
    if (!dryRun && !mentioned.contains(comparisonKey(row.name)))
      table.rules().remove(table.change(), row.name);
  }
  return changes;
}

void s_addSet(Command& group, const std::shared_ptr<RuleArguments>& arguments) {
  Command set = group.command(
      "set", "Say who may write to an alias, who may send as it, and until when it is there",
      "  tsl-address-map alias rule set all@example.com --writers domain\n"
      "  tsl-address-map alias rule set board@example.com --writers listed --list ann@example.com"
      " --list office@example.com\n"
      "  tsl-address-map alias rule set party@example.com --expires 2026-12-31 --note 'ask Ann'\n"
      "What is not given stays as it is; the value none takes it away. The writers are:\n"
      "  anyone         the default\n"
      "  authenticated  whoever has logged in\n"
      "  domain         the users of the alias's own domain\n"
      "  members        those that the alias expands to\n"
      "  listed         those that --list names, and those that named aliases expand to\n"
      "The service enforces it for mail servers that ask it, see 'serve --help'. ADDRESS may be"
      " the word default:\nthe rule of all aliases of the table without one of their own.\n",
      Preparation::Database, withArguments(s_set, arguments));
  set.argument("ADDRESS", arguments->alias, "The alias, or default");
  set.option("--writers", arguments->writers, "WHO", "Who may write to the alias");
  set.optionList("--list", arguments->listed, "ADDRESS",
                 "Someone who may write, with --writers listed; repeat it for more");
  set.optionList("--owner", arguments->owners, "ADDRESS",
                 "Someone who may send as the alias; repeat it for more");
  set.option(
      "--expires", arguments->expires, "TIME",
      "From then on the alias counts as not there: 2026-12-31 or 2026-12-31T18:00:00, in UTC");
  set.option("--note", arguments->note, "TEXT", "A note for people");
  set.option("--contact", arguments->contact, "ADDRESS", "Whom to ask about the alias");
  addDryRun(set, arguments->dryRun);
}

void s_addFiles(Command& group, const std::shared_ptr<RuleArguments>& arguments) {
  Command exported = group.command(
      "export", "Write all rules of the table into a file",
      "  tsl-address-map alias rule export rules.txt\n"
      "One rule per line: ADDRESS<TAB>RULE, as 'alias rule list' shows them.\n",
      Preparation::Database,
      [arguments](Session& session) { return exportRules(session, arguments->file); });
  exported.optionalArgument("FILE", arguments->file, "The file; none, or -, for standard output");
  Command imported = group.command(
      "import", "Add the rules of a file, or change them, all or none",
      "  tsl-address-map alias rule import rules.txt --dry-run\n"
      "Each line is ADDRESS<TAB>RULE; '#' begins a comment. Rules that the file does not mention"
      " stay, unless\n--replace is given. Prints how many changed; with --json {\"changed\"}.\n",
      Preparation::Database, [arguments](Session& session) {
        return importRules(session, arguments->file, arguments->replace, arguments->dryRun);
      });
  imported.argument("FILE", arguments->file, "The file, or - for standard input");
  imported.flag("--replace", arguments->replace, "Remove the rules that the file does not mention");
  addDryRun(imported, arguments->dryRun);
}

}  // namespace

ExitCode exportRules(Session& session, const std::string& file) {
  session.tellTarget(TableKind::Alias);
  const auto rows = AliasTable(aliasTableName(session.tableName())).rules().rows();
  std::string text;
  for (const RuleRow& row : rows) {
    if (!row.rule) throw brokenRule(s_nameOf(row.name));
    text += s_nameOf(row.name) + "\t" + ruleText(*row.rule) + "\n";
  }
  if (file.empty() || file == "-") {
    if (!text.empty()) session.output().line(text.substr(0, text.size() - 1));
    return ExitCode::Done;
  }
  ExportFile target(file);
  target.write(text);
  target.finish();
  if (session.isJson()) session.output().document(Json{{"rules", rows.size()}});
  return ExitCode::Done;
}

ExitCode importRules(Session& session, const std::string& file, bool replace, bool dryRun) {
  const std::vector<RuleLine> rules = s_readFile(file);
  session.tellTarget(TableKind::Alias);
  AliasTable table(aliasTableName(session.tableName()));
  std::vector<std::string> changes;
  table.transact([&] {
    changes = replace ? s_removeOthers(table, rules, dryRun) : std::vector<std::string>();
    for (const auto& [alias, rule] : rules) {
      const std::string name = s_nameToWrite(table, alias, session);
      const auto before = table.rules().look(alias);
      const std::string change = s_changeLine(name, before, rule);
      if (change.empty()) continue;
      changes.push_back(change);
      if (dryRun) continue;
      if (before && before->name != name) table.rules().remove(table.change(), before->name);
      table.rules().set(table.change(), name, rule);
    }
    return !dryRun && !changes.empty();
  });
  if (session.isJson()) {
    answerChange(session, Json{{"changed", changes.size()}}, "", dryRun);
    return ExitCode::Done;
  }
  if (dryRun) {
    for (const std::string& change : changes) session.output().line(printable(change));
  }
  session.output().line(std::to_string(changes.size()) + " changed");
  return ExitCode::Done;
}

void addRuleCommands(Command& alias) {
  const auto arguments = std::make_shared<RuleArguments>();
  Command group = alias.group("rule", "Who may write to an alias, send as it, and until when");
  s_addSet(group, arguments);
  Command show = group.command("show", "Show the rule of an alias; exit 1 when there is none",
                               "  tsl-address-map alias rule show all@example.com\n"
                               "With --json {\"address\", \"rule\"}.\n",
                               Preparation::Database, withArguments(s_show, arguments));
  show.argument("ADDRESS", arguments->alias, "The alias, or default");
  Command list =
      group.command("list", "List the rules",
                    "  tsl-address-map alias rule list --domain example.com\n"
                    "One per line: ADDRESS<TAB>RULE; with --json a list of {\"address\", \"rule\"},"
                    " the address of the default being null.\n",
                    Preparation::Database, withArguments(s_list, arguments));
  list.option("--domain", arguments->domain, "DOMAIN", "Only those of aliases of this domain");
  Command remove = group.command("remove", "Remove a rule; exit 1 when there is none",
                                 "  tsl-address-map alias rule remove all@example.com\n",
                                 Preparation::Database, withArguments(s_remove, arguments));
  remove.argument("ADDRESS", arguments->alias, "The alias, or default");
  addDryRun(remove, arguments->dryRun);
  s_addFiles(group, arguments);
}

}  // namespace Tessel::Tool
