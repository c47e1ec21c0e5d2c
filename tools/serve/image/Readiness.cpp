// Whether all that mail servers ask for can be answered.
#include "serve/image/Readiness.h"

#include <optional>
#include <string_view>

namespace Tessel::Serve {

namespace {

constexpr const char* s_configuration = "the configuration of domains and mail users";

void s_append(std::string& why, const std::string& what) {
  why += (why.empty() ? "" : "; ") + what;
}

std::string s_lastRight(Clock::duration age) {
  return "last known to be right " + secondsText(age) + " ago";
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
