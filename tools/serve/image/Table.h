// The tables that are served: their newest images, how old these are, and the pages of long
// answers.
#ifndef TSL_TOOLS_SERVE_IMAGE_TABLE_H
#define TSL_TOOLS_SERVE_IMAGE_TABLE_H

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include "base/Guarded.h"
#include "serve/base/MemoryBudget.h"
#include "serve/base/Metrics.h"
#include "serve/base/Settings.h"
#include "serve/image/AliasImage.h"
#include "serve/image/ConfigurationImage.h"
#include "serve/image/MaskImage.h"
#include "serve/image/Pages.h"
#include "serve/image/RuleImage.h"
#include "tables/TableNames.h"

namespace Tessel::Serve {

// What is in a table that is read: of those of the library, aliases or masks, or the rules of
// aliases, which mail servers cannot ask for.
enum class TableKind { Alias, Mask, Rules };

// The SQL name of the table of `kind` for the store name `name`; there is one of rules only.
std::string sqlNameOf(TableKind kind, const std::string& name);

// The image of a table of any kind. Any thread.
class TableImage {
 public:
  // Reads all rows of `source`. Throws what it throws.
  TableImage(TableKind kind, const RowSource& source);

  // Requires: the kind.
  [[nodiscard]] const AliasImage& alias() const { return *m_alias; }
  [[nodiscard]] const MaskImage& mask() const { return *m_mask; }
  [[nodiscard]] const RuleImage& rules() const { return *m_rules; }

  [[nodiscard]] std::size_t bytes() const {
    return with([](const auto& image) { return image.bytes(); });
  }
  [[nodiscard]] const RowStore& rows() const {
    return with([](const auto& image) -> const RowStore& { return image.rows(); });
  }
  [[nodiscard]] const BrokenRows& brokenRows() const {
    return with([](const auto& image) -> const BrokenRows& { return image.brokenRows(); });
  }

 private:
  // What `use` returns for the image that is there.
  template <class Use>
  std::invoke_result_t<Use, const MaskImage&> with(Use use) const {
    if (m_alias != nullptr) return use(*m_alias);
    if (m_mask != nullptr) return use(*m_mask);
    return use(*m_rules);
  }

  std::unique_ptr<AliasImage> m_alias;  // One of them is there.
  std::unique_ptr<MaskImage> m_mask;
  std::unique_ptr<RuleImage> m_rules;
};

using ImagePointer = std::shared_ptr<const TableImage>;

// What the database says of a table. While it is in doubt, its last image must not answer: a table
// that is being restored looks as if it had lost its rows.
enum class TableState : std::uint8_t {
  Good,
  Missing,  // It is not there, and may come back.
  Gone,     // It is not there, and an administrator confirmed that.
  Empty,    // It has no rows, and had some before.
  Filling,  // It is there again, with fewer rows than before.
};

// Any thread may call any operation.
class Table {
 public:
  // The table of the store name `name`; empty for the base table, and that of rules.
  Table(TableKind kind, const std::string& name);

  [[nodiscard]] TableKind kind() const noexcept { return m_kind; }
  [[nodiscard]] const std::string& sqlName() const noexcept { return m_sqlName; }
  // A different one for each object that there ever was.
  [[nodiscard]] std::uint64_t number() const noexcept { return m_number; }

  // The newest image; null when there was none yet.
  [[nodiscard]] ImagePointer image() const;
  // Changes with each image, so that a holder of one knows that there is a newer one.
  [[nodiscard]] std::uint64_t generation() const noexcept { return m_generation; }
  // Replaces the image. Threads that still use the old one keep it alive.
  void publish(ImagePointer image);

  // The table was found to be as its image has it, by a look that began at `time`.
  void confirm(Clock::time_point time) noexcept { m_confirmed = time.time_since_epoch().count(); }
  // How long ago the image was last known to be right; nothing when it never was.
  [[nodiscard]] std::optional<Clock::duration> age(Clock::time_point now) const noexcept;

  [[nodiscard]] TableState state() const noexcept { return m_state; }
  // An image that makes the table good again must be published before that.
  void setState(TableState state) noexcept { m_state = state; }
  // Why the table cannot answer at `now`; empty when it can.
  [[nodiscard]] std::string_view whyUnable(Clock::time_point now, const Settings& settings) const;

 private:
  const TableKind m_kind;
  const std::string m_sqlName;
  const std::uint64_t m_number;
  Guarded<ImagePointer> m_image;
  std::atomic<std::uint64_t> m_generation = 0;
  std::atomic<Clock::rep> m_confirmed;
  std::atomic<TableState> m_state = TableState::Good;
};

// If an image was not compared with its table for this long, the database is unavailable.
inline constexpr Clock::duration s_outage = 5s;

// True when an image that is `age` old is too old to answer from.
bool isTooOld(Clock::duration age, const Settings& settings);
// `duration` in whole seconds, as in "12 s".
std::string secondsText(Clock::duration duration);

using TablePointer = std::shared_ptr<Table>;

// The tables that are served, by their SQL names. A table that was there once stays, with its last
// image, until it is removed. Any thread may call any operation.
class Tables {
 public:
  // Asks for `settings`, which must outlive the object.
  explicit Tables(const Settings& settings);

  // The table of the SQL name; null when it is not served.
  [[nodiscard]] TablePointer find(std::string_view sqlName) const;
  // Makes sure that the table is served, or read for the rules. Null for an SQL name that is not
  // that of a table of the library or of the rules, or that the settings leave out.
  TablePointer add(const std::string& sqlName);
  // The table is gone for good, and not served any more. Those who have it keep it.
  void remove(const std::string& sqlName);
  // True when the table was removed, and has not been added since.
  [[nodiscard]] bool isRemoved(const std::string& sqlName) const;
  // Changes whenever a table is added or removed.
  [[nodiscard]] std::uint64_t changes() const noexcept { return m_changes; }
  // All of them, in the order of their names.
  [[nodiscard]] std::vector<TablePointer> all() const;

  // Policies are asked for, which need the table of rules.
  void setRulesNeeded() { m_areRulesNeeded = true; }
  // Policies are asked for, and the database has no table of rules, or none that may be read.
  [[nodiscard]] bool lacksRules() const;

  // The database has the tables `names`, by their SQL names, whether they are served or not.
  void setNames(std::set<std::string> names);
  // Those names; nothing while the database was not asked yet.
  [[nodiscard]] std::optional<std::set<std::string>> names() const;
  // A mail server asked for the table at `now`, and it is not served.
  void noteUnknown(const std::string& sqlName, Clock::time_point now);
  // The tables that mail servers asked for in the minute before `now`, and that are not served. Not
  // more than a few: nobody fills the log from outside.
  [[nodiscard]] std::vector<std::string> unknown(Clock::time_point now) const;

  // Mail servers asked for these aliases: the SQL name of the table, a blank and the key of each.
  using Asked = std::unordered_set<std::string>;
  void noteAsked(Asked&& asked);
  // What was noted since the last call.
  [[nodiscard]] Asked takeAsked();

  [[nodiscard]] const Settings& settings() const noexcept { return m_settings; }
  // The domains and mail users that aliases for all users, and other maps, depend on.
  [[nodiscard]] Configuration& configuration() noexcept { return m_configuration; }
  [[nodiscard]] const Configuration& configuration() const noexcept { return m_configuration; }
  // The pages of all tables.
  [[nodiscard]] Pages& pages() noexcept { return m_pages; }
  // What the answers that are kept may take, in all threads.
  [[nodiscard]] MemoryBudget& answerMemory() noexcept { return m_answerMemory; }
  [[nodiscard]] const MemoryBudget& answerMemory() const noexcept { return m_answerMemory; }
  [[nodiscard]] const MemoryBudget& pageMemory() const noexcept { return m_pageMemory; }

 private:
  const Settings& m_settings;
  // Half of the memory for each: many answers must not leave a long list without pages.
  MemoryBudget m_answerMemory;
  MemoryBudget m_pageMemory;
  Pages m_pages;
  Configuration m_configuration;
  Guarded<std::map<std::string, TablePointer, std::less<>>> m_tables;
  std::atomic<std::uint64_t> m_changes = 1;
  std::atomic<bool> m_areRulesNeeded = false;
  Guarded<std::set<std::string>> m_removed;
  Guarded<std::optional<std::set<std::string>>> m_names;
  Guarded<std::map<std::string, Clock::time_point>> m_unknown;  // When they were asked for last.
  Guarded<Asked> m_asked;
};

// `metrics` in the text format of Prometheus, with the state of `tables` at `now`.
std::string metricsText(Metrics& metrics, const Tables& tables, Clock::time_point now);

}  // namespace Tessel::Serve

#endif
