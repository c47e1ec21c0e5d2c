// Whether all that mail servers ask for can be answered, and the log of when that ends and begins
// for want of new rows.
#ifndef TSL_TOOLS_SERVE_IMAGE_READINESS_H
#define TSL_TOOLS_SERVE_IMAGE_READINESS_H

#include <set>
#include <string>

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

  // Logs once when rows become too old to answer from, and once when that is over. To be called
  // about once a second: whoever reads the tables may be waiting for the database. One thread.
  void report(Clock::time_point now);

 private:
  void reportOne(const std::string& what, bool isOld, Clock::duration age);

  const Settings& m_settings;
  const Tables& m_tables;
  Log& m_log;
  std::set<std::string> m_old;  // What was reported as too old.
};

}  // namespace Tessel::Serve

#endif
