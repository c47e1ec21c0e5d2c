// Answers the requests of mail servers from the images of the tables and of the configuration.
#ifndef TSL_TOOLS_SERVE_ANSWER_LOOKUP_H
#define TSL_TOOLS_SERVE_ANSWER_LOOKUP_H

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "serve/answer/AnswerCache.h"
#include "serve/answer/CurrentRules.h"
#include "serve/answer/Policy.h"
#include "serve/answer/PolicyTables.h"
#include "serve/base/Answer.h"
#include "serve/base/Background.h"
#include "serve/base/Log.h"
#include "serve/base/Metrics.h"
#include "serve/base/Settings.h"
#include "serve/image/Table.h"
#include "tables/Extension.h"

namespace Tessel::Serve {

// One thread; each has its own.
class Lookup {
 public:
  // Has answers that take long made by others meanwhile.
  struct Helpers {
    Background& threads;
    // Runs a task on the thread of the lookup, from any thread, if there is still one.
    std::function<void(std::function<void()>)> onOwnThread;
    // Called on the thread of the lookup when a reply that was not known is known now.
    std::function<void()> isKnown;
  };

  // All references must outlive the object. Without `helpers` every reply is made at once.
  Lookup(const Settings& settings, Tables& tables, Metrics& metrics, Log& log,
         std::optional<Helpers> helpers = std::nullopt);
  ~Lookup();
  Lookup(const Lookup&) = delete;
  Lookup& operator=(const Lookup&) = delete;

  // The reply to `request`, "MAP KEY", at `now`: any bytes, which come from outside. Counts it. The
  // reply reports failures; throws nothing but std::bad_alloc. Valid until the next call. Null when
  // it takes longer: then it is to be asked for again when the helpers say so.
  const std::string* reply(std::string_view request, Clock::time_point now = Clock::now());

  // The action for `request` of the policy protocol, as above.
  const std::string* action(const PolicyRequest& request, Clock::time_point now = Clock::now());

  // Gives back what was not used lately, and hands over which aliases were asked for. To be called
  // once a second, and at the end.
  void sweep(Clock::time_point now);

 private:
  // One table in one direction, or a map without a table.
  struct Route {
    Map map = Map::None;
    TablePointer table;
    ImagePointer image;
    std::uint64_t generation = 0;
    std::uint64_t users =
        0;  // Number of the image of the users that answers depend on; 0 for none.
    std::uint64_t rules = 0;  // Number of the rules that answers depend on, likewise.

    // What its replies come from; with a table.
    [[nodiscard]] AnswerCache::Source source() const;
  };
  using Routes = std::map<std::string, Route, std::less<>>;

  // An answer that takes long.
  struct Job {
    std::uint64_t table;
    std::string key;
    auto operator<=>(const Job&) const = default;  // NOLINT(modernize-use-nullptr): it sees one
  };
  struct Made {
    Answer answer;
    Clock::time_point since;  // When it was first asked for.
  };

  bool replyAt(std::string_view request, Clock::time_point now);
  void give(const Answer& answer);
  Route* routeOf(std::string_view name, Clock::time_point now);
  // Why the table of `route` cannot answer; empty when it can. Brings its image up to date.
  std::string refresh(Route& route, Clock::time_point now);
  // Nothing when the answer takes longer.
  std::optional<Answer> answer(const Route& route, std::string_view key, Clock::time_point now);
  std::optional<Answer> aliasAnswer(const Route& route, std::string_view text,
                                    Clock::time_point now);
  [[nodiscard]] std::string caughtKey(const PolicyTables::Context& context,
                                      const std::string& key) const;
  std::optional<Answer> caughtAnswer(const Route& route, const std::string& key,
                                     const std::string& base, Clock::time_point now);
  [[nodiscard]] std::optional<bool> hasMask(const std::string& key, Clock::time_point now) const;
  std::optional<Answer> expansion(const Route& route, const std::string& key,
                                  Clock::time_point now);
  std::optional<Answer> expand(const Route& route, const std::string& key, Clock::time_point now);
  void begin(const Route& route, const std::string& key, Clock::time_point now);
  void post(const Job& job, Clock::time_point now,
            std::function<std::pair<Answer, AnswerCache::Source>()> make);
  void made(const Job& job, const AnswerCache::Source& source, const Answer& answer);
  const Answer* madeOf(const Job& job);
  void keepReply(const Route& route, std::string_view text, Validity validity,
                 Clock::time_point now);
  void keepExpansion(const AnswerCache::Source& source, const std::string& key,
                     const Answer& answer, Clock::time_point now);
  [[nodiscard]] Clock::time_point moment(Clock::time_point now) const;
  Answer page(const Route& route, const std::string& key, Clock::time_point now);
  Answer knownAnswer(const Route& route, std::string_view text, Answer answer,
                     Clock::time_point now);
  [[nodiscard]] Answer maskAnswer(const Route& route, std::string_view text) const;
  Answer maskAnswerWithoutDisabled(const Route& route, std::string_view text,
                                   Clock::time_point now);
  bool actionAt(const PolicyRequest& request, Clock::time_point now);
  std::optional<Answer> policy(const PolicyTables::Context& context, const PolicyRequest& request,
                               Clock::time_point now);
  [[nodiscard]] std::string privateAddress(const PolicyTables::Context& context,
                                           std::string_view recipient) const;
  Answer senderLogins(const Route& route, std::string_view text, Clock::time_point now);
  Answer mailboxAnswer(std::string_view text, Clock::time_point now);
  Answer domainAnswer(std::string_view text, Clock::time_point now);
  ConfigurationPointer configuration(Clock::time_point now);
  // Cuts `text` at its extension, if the settings want that.
  [[nodiscard]] Tool::ExtendedAddress cut(std::string_view text) const;
  // The extension that the addresses of an answer get.
  [[nodiscard]] std::string_view kept(const Tool::ExtendedAddress& address) const;
  // `answer` with `extension` in its addresses, unless it would become too long for that.
  [[nodiscard]] Answer extended(Answer answer, std::string_view extension) const;

  const Settings& m_settings;
  Tables& m_tables;
  Metrics& m_metrics;
  Log& m_log;
  const std::optional<Helpers> m_helpers;
  std::array<Routes, s_maps> m_routes;  // By map and store name; a second old at most.
  AnswerCache m_cache;
  CurrentRules m_rules;
  PolicyTables m_policies;
  std::map<Job, Clock::time_point> m_jobs;  // Those that the helpers do, and since when.
  std::map<Job, Made> m_made;               // What they have just done.
  const bool m_areAskedNoted;
  Tables::Asked m_asked;  // Since the last sweep.
  // Of the request that is being answered.
  std::string m_reply;
  Map m_map = Map::None;
  Result m_result = Result::Perm;
  Clock::time_point m_since;
};

}  // namespace Tessel::Serve

#endif
