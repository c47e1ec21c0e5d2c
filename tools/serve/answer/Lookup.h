// Answers the requests of mail servers from the images of the tables and from the configuration.
#ifndef TSL_TOOLS_SERVE_ANSWER_LOOKUP_H
#define TSL_TOOLS_SERVE_ANSWER_LOOKUP_H

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "serve/answer/AnswerCache.h"
#include "serve/answer/Extension.h"
#include "serve/base/Answer.h"
#include "serve/base/Log.h"
#include "serve/base/Metrics.h"
#include "serve/base/Settings.h"
#include "serve/image/Table.h"

namespace Tessel::Serve {

// One thread; each has its own.
class Lookup {
 public:
  // All references must outlive the object.
  Lookup(const Settings& settings, Tables& tables, Metrics& metrics, Log& log);
  ~Lookup();
  Lookup(const Lookup&) = delete;
  Lookup& operator=(const Lookup&) = delete;

  // The reply to `request`, "MAP KEY": any bytes, which come from outside. Counts it. The reply
  // reports failures; throws nothing but std::bad_alloc. Valid until the next call.
  const std::string& reply(std::string_view request);

 private:
  // What is known about one map name of the requests.
  struct MapRoute;

  const std::string& replyAt(std::string_view request, Clock::time_point now);
  MapRoute* routeOf(std::string_view name);
  // Why the table of `route` cannot answer; empty when it can. Brings its image up to date.
  std::string refresh(MapRoute& route, Clock::time_point now);
  Answer answer(MapRoute& route, std::string_view key, Clock::time_point now);
  Answer aliasAnswer(const MapRoute& route, std::string_view text, Clock::time_point now);
  Answer expansion(const MapRoute& route, const std::string& key, std::string_view extension,
                   Clock::time_point now);
  Answer page(const MapRoute& route, const std::string& key, std::string_view extension,
              Clock::time_point now);
  [[nodiscard]] bool isPageOfAnyTable(std::string_view key, Clock::time_point now) const;
  Answer maskAnswer(const MapRoute& route, std::string_view text) const;
  [[nodiscard]] Answer mailboxAnswer(std::string_view text) const;
  [[nodiscard]] Answer domainAnswer(std::string_view text) const;
  void reportLoop(const MapRoute& route, const std::string& key);
  // `text` without its extension, when the settings ask for that; otherwise unchanged.
  [[nodiscard]] ExtendedAddress cut(std::string_view text) const;
  // The extension that the addresses of an answer get.
  [[nodiscard]] std::string_view kept(const ExtendedAddress& address) const;
  // `addresses`, each with `extension`.
  [[nodiscard]] std::vector<std::string> extended(std::vector<std::string> addresses,
                                                  std::string_view extension) const;
  // The text of an answer: `addresses`, which fit into one, with `extension` unless it would become
  // too long for that.
  [[nodiscard]] std::string joined(const Pages& pages, const std::vector<std::string>& addresses,
                                   std::string_view extension) const;

  const Settings& m_settings;
  Tables& m_tables;
  Metrics& m_metrics;
  Log& m_log;
  std::map<std::string, std::unique_ptr<MapRoute>, std::less<>> m_routes;
  std::string m_reply;
  Map m_map = Map::None;  // Of the request that is being answered.
  Result m_result = Result::Perm;
};

}  // namespace Tessel::Serve

#endif
