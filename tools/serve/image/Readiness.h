// Whether all that mail servers ask for can be answered, and the log of when rows become too old,
// and of tables that are asked for and not there.
#ifndef TSL_TOOLS_SERVE_IMAGE_READINESS_H
#define TSL_TOOLS_SERVE_IMAGE_READINESS_H

#include <set>
#include <string>
#include <vector>

#include "serve/base/Log.h"
#include "serve/base/Settings.h"
#include "serve/image/Table.h"

namespace Tessel::Serve {

class Readiness {
 public:
  // All references must outlive the object.
  Readiness(const Settings& settings, const Tables& tables, Log& log);

  // Why not all tables, and the configuration if there is one, can be answered from at `now`; empty
  // when they can. Any thread.
  [[nodiscard]] std::string whyNot(Clock::time_point now) const;

  // Logs once when rows become too old to answer from, or a table that is not there is asked for by
  // a mail server or by --only, and once when that is over. To be called about once a second:
  // whoever reads the tables may be waiting for the database. One thread.
  void report(Clock::time_point now);

 private:
  // The names that --only gives and no table has.
  [[nodiscard]] std::vector<std::string> absent() const;
  void reportOne(const std::string& what, bool isOld, Clock::duration age);
  void reportAbsent();
  void reportUnknown(Clock::time_point now);
  void reportRules();

  const Settings& m_settings;
  const Tables& m_tables;
  Log& m_log;
  // What was reported: as too old, as a name without a table, and as a table that is not served.
  std::set<std::string> m_old;
  std::set<std::string> m_absent;
  std::set<std::string> m_unknown;
  bool m_lacksRules = false;
};

}  // namespace Tessel::Serve

#endif
