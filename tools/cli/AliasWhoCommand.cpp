// The command `alias who`: through which aliases mail reaches an address.
#include <algorithm>
#include <memory>
#include <queue>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/stringCompareNoCase.h"
#include "cli/AddressInput.h"
#include "cli/AliasReport.h"
#include "cli/Command.h"
#include "tables/AliasCycles.h"
#include "tables/AliasGraph.h"
#include "tables/MailUsers.h"
#include "tables/TableNames.h"
#include "terminal/Progress.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

// Paths that are shown for an alias, and how many are searched at most: a net of aliases may have
// more than anybody can count.
constexpr std::size_t s_fewPaths = 3;
constexpr std::size_t s_mostPaths = 1000;
constexpr std::size_t s_mostSteps = 1000000;

constexpr std::uint32_t s_farAway = UINT32_MAX;

// The paths of aliases farther away are not shown: in a long chain, their total length is the
// square of its length.
constexpr std::uint32_t s_farthest = 1000;

struct Arguments {
  std::string address;
  bool allPaths = false;
};

using Path = std::vector<AliasGraph::Id>;

// The broken rows of the table, and which of the others have a text among their members.
class Holders : public AliasVisitor {
 public:
  Holders(std::string member, std::string table)
      : m_member(std::move(member)), m_table(std::move(table)) {}

  void broken(std::string_view name, RowFault fault, const std::string& why) override {
    AliasRow row;
    row.name = name;
    row.fault = fault;
    row.why = why;
    const bool hasName = fault != RowFault::BadKey && fault != RowFault::EmptyKey;
    if (hasName) row.alias = EmailAddress::rfc5321Parse(name, false);
    report(brokenRow(row, m_table));
    m_isBroken = true;
  }

  void member(AddressIndex::Id alias, std::string_view member, bool /*isAlias*/) override {
    if (member.size() == m_member.size() && stringCompareNoCase(member, m_member, 0)) {
      m_holders.push_back(alias);
    }
  }

  [[nodiscard]] const std::vector<AliasGraph::Id>& holders() const { return m_holders; }
  [[nodiscard]] bool isBroken() const { return m_isBroken; }

 private:
  std::string m_member;
  std::string m_table;
  std::vector<AliasGraph::Id> m_holders;
  bool m_isBroken = false;
};

// The paths from aliases to those that have a certain member, shortest first.
class Ways {
 public:
  // The paths to `ends`; they pass through `closed` only at their start. `graph` must outlive the
  // object.
  Ways(const AliasGraph& graph, const std::vector<AliasGraph::Id>& ends, AliasGraph::Id closed)
      : m_graph(graph), m_distance(graph.links().size(), s_farAway), m_closed(closed) {
    const DirectedGraph reversed = graph.links().reversed();
    Path queue;
    for (const AliasGraph::Id end : ends) {
      m_distance[end] = 0;
      queue.push_back(end);
    }
    for (std::size_t i = 0; i < queue.size(); ++i) {
      if (queue[i] == m_closed) continue;
      for (const AliasGraph::Id above : reversed.of(queue[i])) {
        if (m_distance[above] != s_farAway || above == m_closed) continue;
        m_distance[above] = m_distance[queue[i]] + 1;
        queue.push_back(above);
      }
    }
    std::stable_sort(queue.begin(), queue.end(), [this](AliasGraph::Id a, AliasGraph::Id b) {
      return m_distance[a] < m_distance[b];
    });
    m_aliases = std::move(queue);
  }

  // The aliases that have a path, the nearest first.
  [[nodiscard]] const Path& aliases() const { return m_aliases; }
  // DirectedGraph on the shortest path of `alias`, `s_farAway` when there is none.
  [[nodiscard]] std::uint32_t distance(AliasGraph::Id alias) const { return m_distance[alias]; }

  // Up to `most` paths of `alias`, none of which passes an alias twice.
  [[nodiscard]] std::vector<Path> from(AliasGraph::Id alias, std::size_t most) const {
    std::vector<Path> ways;
    std::vector<Step> steps{{alias, s_farAway, 0}};
    std::priority_queue<Start, std::vector<Start>, Later> starts;
    starts.push({m_distance[alias], 0, false, true});
    while (!starts.empty() && ways.size() < most && (ways.empty() || steps.size() < s_mostSteps)) {
      const Start start = starts.top();
      starts.pop();
      if (start.isWhole) {
        ways.push_back(pathTo(steps, start.step));
        continue;
      }
      extend(start, steps, starts);
    }
    return ways;
  }

 private:
  // An alias on the beginning of a path, and the place of the one before it.
  struct Step {
    AliasGraph::Id alias;
    std::uint32_t before;
    std::uint32_t length;  // DirectedGraph up to here.
  };

  // The beginning of a path, or a whole one, by its last step, and the minimum of its total length.
  struct Start {
    std::uint32_t length;
    std::uint32_t step;
    bool isWhole;
    bool isDirect;  // Each step came nearer.
  };

  // Which comes later: of two of equal length the less advanced one, so that the first path is
  // found without a look at all of that length.
  struct Later {
    bool operator()(const Start& a, const Start& b) const {
      if (a.length != b.length) return a.length > b.length;
      return a.isWhole != b.isWhole ? b.isWhole : a.step < b.step;
    }
  };

  static Path pathTo(const std::vector<Step>& steps, std::uint32_t step) {
    Path path;
    for (; step != s_farAway; step = steps[step].before) path.push_back(steps[step].alias);
    std::reverse(path.begin(), path.end());
    return path;
  }

  static bool isSeen(const std::vector<Step>& steps, std::uint32_t step, AliasGraph::Id alias) {
    while (step != s_farAway && steps[step].alias != alias) step = steps[step].before;
    return step != s_farAway;
  }

  template <class Starts>
  void extend(const Start& start, std::vector<Step>& steps, Starts& starts) const {
    const Step last = steps[start.step];
    if (m_distance[last.alias] == 0) starts.push({last.length, start.step, true, false});
    if (last.alias == m_closed) return;
    // Backwards, as the latest comes first.
    const auto links = m_graph.links().of(last.alias);
    for (auto link = links.rbegin(); link != links.rend(); ++link) {
      const AliasGraph::Id next = *link;
      if (m_distance[next] == s_farAway || next == m_closed) continue;
      // A path that always comes nearer cannot meet an alias twice; a check would cost its length.
      const bool isDirect = start.isDirect && m_distance[next] < m_distance[last.alias];
      if (!isDirect && isSeen(steps, start.step, next)) continue;
      const auto step = static_cast<std::uint32_t>(steps.size());
      steps.push_back({next, start.step, last.length + 1});
      starts.push({last.length + 1 + m_distance[next], step, false, isDirect});
    }
  }

  const AliasGraph& m_graph;
  std::vector<std::uint32_t> m_distance;
  AliasGraph::Id m_closed;
  Path m_aliases;
};

// Writes the paths to an address.
class Report {
 public:
  // Both references must outlive the object.
  Report(Session& session, const AliasGraph& graph, bool allPaths)
      : m_session(session), m_graph(graph), m_list(session.output()), m_allPaths(allPaths) {}

  // The paths of `alias`, with `last` at the end of each.
  void add(const Ways& ways, AliasGraph::Id alias, const std::vector<std::string>& last) {
    ++m_count;
    if (ways.distance(alias) > s_farthest) return addFar(alias, ways.distance(alias), last.back());
    const std::size_t most = m_allPaths ? s_mostPaths : s_fewPaths;
    // One more shows whether there are more.
    std::vector<Path> found = ways.from(alias, most + 1);
    if (found.size() > most) ++m_cut;
    found.resize(std::min(found.size(), most));
    if (m_session.isJson()) {
      m_list.add("", [&] { return jsonOf(alias, found, last); });
      return;
    }
    for (const Path& path : found) m_session.output().line(textOf(texts(path, last)));
  }

  // The number of aliases.
  std::size_t end() {
    m_list.end();
    if (m_cut != 0) {
      say(std::to_string(m_cut) + " of " + std::to_string(m_count) + " aliases have more paths" +
          (m_allPaths ? "" : "; --all-paths shows them"));
    }
    return m_count;
  }

 private:
  void addFar(AliasGraph::Id alias, std::uint32_t distance, const std::string& address) {
    const std::string name(m_graph.names().text(alias));
    m_list.add(name + " -> ... (" + std::to_string(distance) + " more) -> " + address, [&] {
      return Json{{"alias", name}, {"path", nullptr}};
    });
  }

  [[nodiscard]] std::vector<std::string> texts(const Path& path,
                                               const std::vector<std::string>& last) const {
    std::vector<std::string> texts;
    for (const AliasGraph::Id alias : path) texts.emplace_back(m_graph.names().text(alias));
    texts.insert(texts.end(), last.begin(), last.end());
    return texts;
  }

  [[nodiscard]] Json jsonOf(AliasGraph::Id alias, const std::vector<Path>& paths,
                            const std::vector<std::string>& last) const {
    Json document{{"alias", m_graph.names().text(alias)}};
    document["path"] = texts(paths.front(), last);
    if (!m_allPaths) return document;
    Json list = Json::array();
    for (const Path& path : paths) list.push_back(texts(path, last));
    document["paths"] = list;
    return document;
  }

  Session& m_session;
  const AliasGraph& m_graph;
  ItemList m_list;
  bool m_allPaths;
  std::size_t m_count = 0;
  std::size_t m_cut = 0;
};

// The aliases of the domain of `address` that mean all its users, with the paths to the marker.
void s_addAllUsers(const AliasGraph& graph, const EmailAddress& address, const Ways& direct,
                   Report& report) {
  const std::string domain = address.domain();
  const AddressIndex::Id marker = graph.markers().find("allusers_" + domain);
  if (marker == AddressIndex::s_none) return;
  const Components components = componentsOf(graph.links());
  const std::vector<Reach> reach = graph.reach(components);
  const auto standsForAll = [&](AliasGraph::Id alias) {
    const Reach found = reach[components.of[alias]];
    return found.isMarker() && found.number() == marker;
  };
  // Only these lead to the marker and to nothing else.
  Path holders;
  for (AliasGraph::Id alias = 0; alias < graph.names().size(); ++alias) {
    if (standsForAll(alias) && graph.own(alias).isMarker()) holders.push_back(alias);
  }
  const Ways ways(graph, holders, AddressIndex::s_none);
  for (const AliasGraph::Id alias : ways.aliases()) {
    const bool isOfDomain = stringCompareNoCase(domainOf(graph.names().text(alias)), domain, 0);
    if (!isOfDomain || !standsForAll(alias) || direct.distance(alias) != s_farAway) continue;
    report.add(ways, alias, {std::string(graph.markers().text(marker)), address.address()});
  }
}

ExitCode s_who(Session& session, const Arguments& arguments) {
  const EmailAddress address = parseAddress(arguments.address, false);
  session.tellTarget(TableKind::Alias);
  const std::string table = aliasTableName(session.tableName());
  Database::Connection connection{std::string(s_database)};
  Holders holders(address.address(), table);
  Progress progress;
  progress.endForPager();
  progress.begin("reading", "rows");
  const AliasGraph graph(connection, table, holders, progress.counter());
  progress.begin("looking for paths", "aliases");
  const AliasGraph::Id self = graph.names().find(address.address());
  const Ways ways(graph, holders.holders(), self);
  progress.end();
  Report report(session, graph, arguments.allPaths);
  for (const AliasGraph::Id alias : ways.aliases()) report.add(ways, alias, {address.address()});
  if (graph.markers().size() != 0) {
    MailUsers users;
    const bool isMailbox = users.kindOf(address.address()) == MailUsers::Kind::Mailbox;
    if (isMailbox) s_addAllUsers(graph, address, ways, report);
    if (users.failure()) {
      say("warning: aliases for all users of a domain are left out: " + users.failure()->subject() +
          ": " + users.failure()->why());
    }
  }
  const std::size_t count = report.end();
  if (count == 0) say("no alias of table " + table + " leads to " + address.address());
  if (self != AddressIndex::s_none) {
    say(address.address() + " is an alias itself: mail for it goes to its members");
  }
  if (holders.isBroken()) return ExitCode::BadData;
  return count == 0 ? ExitCode::NotFound : ExitCode::Done;
}

}  // namespace

void addAliasWhoCommand(Command& alias) {
  const auto arguments = std::make_shared<Arguments>();
  Command who = alias.command(
      "who", "Show the aliases through which mail reaches an address; exit 1 when none does",
      "  tsl-address-map alias who ann@example.com\n"
      "One path per line: ALIAS -> ... -> ADDRESS, the shortest ones first. The whole table is"
      " read.\n"
      "With --json a list of {\"alias\", \"path\"}, the path being the shortest one; with"
      " --all-paths also \"paths\".\n",
      Preparation::Database, withArguments(s_who, arguments));
  who.argument("ADDRESS", arguments->address, "An address");
  who.flag("--all-paths", arguments->allPaths, "Show up to 1000 paths of each alias instead of 3");
}

}  // namespace Tessel::Tool
