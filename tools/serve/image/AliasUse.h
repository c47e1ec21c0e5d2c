// Notes in a file which aliases mail servers have asked for.
#ifndef TSL_TOOLS_SERVE_IMAGE_ALIASUSE_H
#define TSL_TOOLS_SERVE_IMAGE_ALIASUSE_H

#include <optional>
#include <string>

#include "serve/base/Background.h"
#include "serve/base/Log.h"
#include "serve/base/Settings.h"
#include "serve/image/Table.h"
#include "tables/UsedAliases.h"

namespace Tessel::Serve {

// Takes what the lookups have collected in the tables, and writes the file of the settings at most
// once a minute when an alias is new, and at least once an hour, so that its reader sees whether it
// is still written. Goes on with the file of the service before. An alias whose row is gone is left
// out. A file that is not such a file, or that others may write, is logged and left as it is, and
// nothing is counted: it may be anything, and mail servers are to be answered in spite of it.
class AliasUse {
 public:
  // Reads the file. All references must outlive the object.
  AliasUse(const Settings& settings, Tables& tables, Log& log);

  // What the file holds; nothing when there is none yet. Throws std::runtime_error when it must not
  // be used. Any thread.
  static std::optional<Tool::UsedAliases> read(const std::string& path);

  // Does what is to be done, on a thread of its own. To be called once a second. One thread.
  void look();
  // Writes what is left, and ends that thread. One thread; once.
  void finish();
  // What look() has done on that thread, as if it were `now`.
  void testOnlyLook(Clock::time_point now) { proceed(now); }

 private:
  void proceed(Clock::time_point now);
  void collect();
  void write();
  [[nodiscard]] bool isThere(const std::string& table, std::string_view key) const;

  const std::string m_path;
  Tables& m_tables;
  Log& m_log;
  std::optional<Tool::UsedAliases> m_used;  // Nothing when they are not counted.
  std::optional<Clock::time_point> m_lastWrite;
  bool m_hasNew = true;
  bool m_isFailing = false;
  Background m_thread{1};
};

}  // namespace Tessel::Serve

#endif
