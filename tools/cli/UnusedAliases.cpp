// The aliases of a table that no mail server has asked for.
#include "cli/UnusedAliases.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "database/Connection.h"
#include "failure/Failure.h"
#include "tables/AddressKey.h"
#include "tables/AliasGraph.h"
#include "tables/AliasRule.h"
#include "tables/TableNames.h"
#include "tables/UsedAliases.h"
#include "terminal/Progress.h"
#include "terminal/Say.h"

namespace Tessel::Tool {

namespace {

// An alias may be needed once a month. A service writes its file every hour, at least.
constexpr std::chrono::days s_month(30);
constexpr std::chrono::hours s_mostAge(2);

UsedAliases s_read(const std::string& path) {
  errno = 0;
  const std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw Failure(ExitCode::BadData, "--unused " + path,
                  std::generic_category().message(errno != 0 ? errno : EIO),
                  "the file is that of 'serve --count-use', which only the user of the service and"
                  " root may read: run it with sudo");
  }
  std::ostringstream content;
  content << file.rdbuf();
  try {
    return UsedAliases(std::string_view(content.str()));
  } catch (const std::runtime_error& error) {
    throw Failure(ExitCode::BadData, "--unused " + path, error.what(),
                  "name the file of 'serve --count-use'");
  }
}

std::string s_text(std::chrono::seconds time) {
  constexpr std::chrono::hours twoDays(48);
  if (time < twoDays) {
    return std::to_string(std::chrono::floor<std::chrono::hours>(time).count()) + " hours";
  }
  return std::to_string(std::chrono::floor<std::chrono::days>(time).count()) + " days";
}

// Reports the time for which all of `files` count, and what makes them doubtful.
void s_tellTime(const std::vector<std::string>& paths, const std::vector<UsedAliases>& files) {
  const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  UsedAliases::Time since = files.front().since();
  UsedAliases::Time until = files.front().until();
  for (std::size_t i = 0; i < files.size(); ++i) {
    since = std::max(since, files[i].since());
    until = std::min(until, files[i].until());
    if (files[i].until() + s_mostAge >= now) continue;
    say("warning: " + paths[i] + " ends at " + timeText(files[i].until()) +
        ": aliases that were asked for since then are listed, too; look whether the service runs"
        " with --count-use");
  }
  const auto length = std::max(until - since, std::chrono::seconds::zero());
  say("aliases that were not asked for since " + timeText(since) + ", for " + s_text(length));
  if (length < s_month) {
    say("warning: that is less than a month; an alias may be in use in spite of it");
  }
}

}  // namespace

UnusedAliases::UnusedAliases(const std::vector<std::string>& files, const std::string& table) {
  std::vector<UsedAliases> all;
  all.reserve(files.size());
  for (const std::string& file : files) all.push_back(s_read(file));
  s_tellTime(files, all);
  Database::Connection connection{std::string(s_database)};
  AliasVisitor visitor;
  Progress progress;
  progress.begin("reading", "rows");
  const AliasGraph graph(connection, table, visitor, progress.counter());
  progress.end();
  const SpellingIndex& names = graph.names();
  std::vector<bool> isUsed(names.size());
  std::vector<AliasGraph::Id> waiting;
  const auto use = [&](AliasGraph::Id alias) {
    if (isUsed[alias]) return;
    isUsed[alias] = true;
    m_used.add(names.text(alias));
    waiting.push_back(alias);
  };
  for (AliasGraph::Id alias = 0; alias < names.size(); ++alias) {
    const std::string key = comparisonKey(names.text(alias));
    const auto has = [&](const UsedAliases& used) { return used.has(table, key); };
    if (std::any_of(all.begin(), all.end(), has)) use(alias);
  }
  while (!waiting.empty()) {
    const AliasGraph::Id alias = waiting.back();
    waiting.pop_back();
    for (const DirectedGraph::Node member : graph.links().of(alias)) use(member);
  }
}

bool UnusedAliases::has(const EmailAddress& alias) const {
  return m_used.find(alias.address()) == SpellingIndex::s_none;
}

}  // namespace Tessel::Tool
