// Whether all that mail servers ask for can be answered.
#include "serve/image/Readiness.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "tables/TableNames.h"

namespace Tessel::Serve {

namespace {

const std::vector<std::string> s_nothing;

constexpr const char* s_configuration = "the configuration of domains and mail users";

constexpr const char* s_noRules = "there is no table rules that the SQL user may read";

void s_append(std::string& why, const std::string& what) {
  why += (why.empty() ? "" : "; ") + what;
}

std::string s_lastRight(Clock::duration age) {
  return "last known to be right " + secondsText(age) + " ago";
}

// The named tables among those with the SQL names `names`.
std::string s_named(const std::set<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    if (!Tool::readTableName(name)->name.empty()) text += (text.empty() ? "" : ", ") + name;
  }
  return text.empty() ? "there are no named tables" : "the named tables are " + text;
}

}  // namespace

Readiness::Readiness(const Settings& settings, const Tables& tables, Log& log)
    : m_settings(settings), m_tables(tables), m_log(log) {}

std::string Readiness::whyNot(Clock::time_point now) const {
  std::string why;
  for (const TablePointer& table : m_tables.all()) {
    const std::string_view unable = table->whyUnable(now, m_settings);
    if (unable.empty()) continue;
    std::string text = table->sqlName() + ": " + std::string(unable);
    const std::optional<Clock::duration> age = table->age(now);
    if (age) text += " (" + s_lastRight(*age) + ")";
    s_append(why, text);
  }
  for (const std::string& name : absent()) {
    s_append(why, "--only " + name + ": there is no such table");
  }
  for (const std::string& table : m_tables.names() ? m_tables.unknown(now) : s_nothing) {
    if (m_tables.isRemoved(table)) continue;
    s_append(why, table + ": mail servers ask for it, and it is not served");
  }
  if (m_tables.lacksRules()) s_append(why, s_noRules);
  const Configuration& configuration = m_tables.configuration();
  if (!configuration.isNeeded()) return why;
  const std::optional<Clock::duration> age = configuration.age(now);
  if (!age) {
    s_append(why, "configuration: it could not be read yet");
  } else if (isTooOld(*age, m_settings)) {
    s_append(why, "configuration: it is too old (" + s_lastRight(*age) + ")");
  }
  return why;
}

void Readiness::report(Clock::time_point now) {
  for (const TablePointer& table : m_tables.all()) {
    const std::optional<Clock::duration> age = table->age(now);
    // What else is wrong with a table is reported by who finds it.
    const bool isOld = age && isTooOld(*age, m_settings) && table->state() == TableState::Good;
    reportOne("table " + table->sqlName(), isOld, age.value_or(Clock::duration()));
  }
  const std::optional<Clock::duration> age = m_tables.configuration().age(now);
  reportOne(s_configuration, age && isTooOld(*age, m_settings), age.value_or(Clock::duration()));
  if (!m_tables.names()) return;
  reportAbsent();
  reportUnknown(now);
  reportRules();
}

void Readiness::reportRules() {
  const bool lacksRules = m_tables.lacksRules();
  if (lacksRules == m_lacksRules) return;
  m_lacksRules = lacksRules;
  if (lacksRules) {
    m_log.error(std::string(s_noRules) +
                ", so policies have the mail for aliases wait (DEFER_IF_PERMIT): run"
                " 'tsl-address-map init', and grant the SQL user the right to select");
  } else {
    m_log.warning("there is a table rules now");
  }
}

std::vector<std::string> Readiness::absent() const {
  if (!m_tables.names()) return {};
  std::vector<std::string> names;
  for (const std::string& name : m_settings.tables) {
    const auto isKnown = [this](const std::string& table) {
      return m_tables.find(table) != nullptr || m_tables.isRemoved(table);
    };
    const bool isThere = isKnown(Tool::aliasTableName(name)) || isKnown(Tool::maskTableName(name));
    if (!isThere) names.push_back(name);
  }
  return names;
}

void Readiness::reportAbsent() {
  const std::vector<std::string> names = absent();
  for (const std::string& name : names) {
    if (!m_absent.insert(name).second) continue;
    m_log.error("--only " + name + ": there is no table " + Tool::aliasTableName(name) + " or " +
                Tool::maskTableName(name) + ", and its requests are answered TEMP; " +
                s_named(*m_tables.names()));
  }
  for (const std::string& name : std::set<std::string>(m_absent)) {
    if (std::find(names.begin(), names.end(), name) != names.end()) continue;
    m_absent.erase(name);
    m_log.warning("--only " + name + ": there is a table now");
  }
}

void Readiness::reportUnknown(Clock::time_point now) {
  const std::vector<std::string> tables = m_tables.unknown(now);
  const std::set<std::string> names = *m_tables.names();
  for (const std::string& table : tables) {
    if (!m_unknown.insert(table).second) continue;
    const bool isLeftOut = names.count(table) != 0;
    m_log.error("mail servers ask for table " + table + " and are answered TEMP: " +
                (isLeftOut ? "--only leaves it out" : "there is no such table") + "; " +
                s_named(names));
  }
  std::erase_if(m_unknown, [&](const std::string& table) {
    return std::find(tables.begin(), tables.end(), table) == tables.end();
  });
}

void Readiness::reportOne(const std::string& what, bool isOld, Clock::duration age) {
  if (isOld && m_old.insert(what).second) {
    m_log.error(what + " was " + s_lastRight(age) +
                ", longer than --stale: what needs it is answered TEMP until it can be read again");
  } else if (!isOld && m_old.erase(what) != 0) {
    m_log.warning(what + " is not too old any more");
  }
}

}  // namespace Tessel::Serve
