// The lookup of the service on the tables and the configuration as they are now.
#ifndef TSL_TOOLS_SERVE_ANSWER_DATABASELOOKUP_H
#define TSL_TOOLS_SERVE_ANSWER_DATABASELOOKUP_H

#include <string>

#include "serve/answer/Lookup.h"
#include "serve/base/Log.h"
#include "serve/base/Metrics.h"
#include "serve/base/Settings.h"
#include "serve/image/Table.h"

namespace Tessel::Serve {

// Answers as a service with the same settings would that has just read everything. One thread.
class DatabaseLookup {
 public:
  // Reads the tables of the store name `name` whole, and the configuration. Throws Exception when
  // the database cannot answer. A configuration that cannot be read is answered `TEMP`.
  DatabaseLookup(const Settings& settings, const std::string& name);

  // The reply to a request. Why nothing can be said is `TEMP`, too.
  std::string ask(const std::string& map, const std::string& key);
  // The action for mail of `login` to `recipient`, as for a host that is not trusted.
  std::string action(const std::string& recipient, const std::string& login);
  // Why the configuration cannot be read; empty when it can.
  [[nodiscard]] const std::string& configurationFault() const { return m_fault; }

 private:
  Log m_log{LogLevel::Error};
  Metrics m_metrics;
  Tables m_tables;
  Lookup m_lookup;
  const std::string m_context;  // Of policies: the map of aliases.
  std::string m_fault;
};

}  // namespace Tessel::Serve

#endif
