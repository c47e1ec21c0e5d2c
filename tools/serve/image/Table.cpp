// A table that is served.
#include "serve/image/Table.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "tables/OwnTables.h"
#include "tables/TableNames.h"

namespace Tessel::Serve {

namespace {

constexpr Clock::rep s_never = std::numeric_limits<Clock::rep>::min();

// How long a table counts as asked for that is not served, how many such are remembered, and the
// longest name of a table that a database can have.
constexpr std::chrono::minutes s_unknownTime = 1min;
constexpr std::size_t s_mostUnknown = 8;
constexpr std::size_t s_longestName = 64;

// A store name that may be served: it is used in file names and in the requests of mail servers.
bool s_isServable(std::string_view name) {
  static constexpr std::string_view s_allowed =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-.$";
  return name.find_first_not_of(s_allowed) == std::string_view::npos;
}

// Room for the extension of each address of a page.
std::size_t s_reserve(const Settings& settings) {
  constexpr std::size_t s_usualExtension = 32;
  return settings.extension == ExtensionRule::Keep ? s_usualExtension : 0;
}

std::uint64_t s_nextNumber() {
  static std::atomic<std::uint64_t> s_last{};
  return ++s_last;
}

// What the table `sqlName` holds, and for which store name; nothing when it is not read.
struct Read {
  TableKind kind;
  std::string name;
};

std::optional<Read> s_readName(const std::string& sqlName) {
  if (sqlName == Tool::s_rules) return Read{TableKind::Rules, ""};
  const std::optional<Tool::TableName> table = Tool::readTableName(sqlName);
  if (!table || !s_isServable(table->name)) return std::nullopt;
  const bool isAlias = table->kind == Tool::TableKind::Alias;
  return Read{isAlias ? TableKind::Alias : TableKind::Mask, table->name};
}

}  // namespace

std::string sqlNameOf(TableKind kind, const std::string& name) {
  if (kind == TableKind::Rules) return Tool::s_rules;
  return kind == TableKind::Alias ? Tool::aliasTableName(name) : Tool::maskTableName(name);
}

TableImage::TableImage(TableKind kind, const RowSource& source) {
  switch (kind) {
    case TableKind::Alias:
      m_alias = std::make_unique<AliasImage>(source);
      break;
    case TableKind::Mask:
      m_mask = std::make_unique<MaskImage>(source);
      break;
    case TableKind::Rules:
      m_rules = std::make_unique<RuleImage>(source);
      break;
  }
}

Table::Table(TableKind kind, const std::string& name)
    : m_kind(kind),
      m_sqlName(sqlNameOf(kind, name)),
      m_number(s_nextNumber()),
      m_confirmed(s_never) {}

ImagePointer Table::image() const {
  return m_image.with([](const ImagePointer& image) { return image; });
}

void Table::publish(ImagePointer image) {
  m_image.with([&](ImagePointer& current) {
    current.swap(image);
    ++m_generation;
  });
  // The old image is destroyed here, without the lock: a large one takes time.
}

std::optional<Clock::duration> Table::age(Clock::time_point now) const noexcept {
  const Clock::rep confirmed = m_confirmed;
  if (confirmed == s_never) return std::nullopt;
  return now - Clock::time_point(Clock::duration(confirmed));
}

std::string_view Table::whyUnable(Clock::time_point now, const Settings& settings) const {
  switch (state()) {
    case TableState::Good:
      break;
    case TableState::Missing:
      return "the table is missing in the database";
    case TableState::Gone:
      return "there is no such table";
    case TableState::Empty:
      return "the table has lost all its rows";
    case TableState::Filling:
      return "the table is being filled again";
  }
  const std::optional<Clock::duration> known = age(now);
  if (!known) return "the table could not be read yet";
  if (!isTooOld(*known, settings)) return "";
  return "the database is unavailable, and the rows in memory are too old";
}

bool isTooOld(Clock::duration age, const Settings& settings) {
  return settings.stale && age > std::max<Clock::duration>(*settings.stale, s_outage);
}

std::string secondsText(Clock::duration duration) {
  return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(duration).count()) + " s";
}

Tables::Tables(const Settings& settings)
    : m_settings(settings),
      m_answerMemory(settings.maxMemory / 2),
      m_pageMemory(settings.maxMemory / 2),
      m_pages(
          {settings.page, settings.maxReply - std::string_view("OK ").size(), s_reserve(settings)},
          m_pageMemory) {}

TablePointer Tables::find(std::string_view sqlName) const {
  return m_tables.with([sqlName](const auto& tables) {
    const auto found = tables.find(sqlName);
    return found == tables.end() ? nullptr : found->second;
  });
}

TablePointer Tables::add(const std::string& sqlName) {
  const std::optional<Read> table = s_readName(sqlName);
  if (!table) return nullptr;
  const std::vector<std::string>& wanted = m_settings.tables;
  const bool isWanted = table->name.empty() || wanted.empty() ||
                        std::find(wanted.begin(), wanted.end(), table->name) != wanted.end();
  if (!isWanted) return nullptr;
  m_removed.with([&](auto& removed) { removed.erase(sqlName); });
  return m_tables.with([&](auto& tables) {
    TablePointer& known = tables[sqlName];
    if (known != nullptr) return known;
    known = std::make_shared<Table>(table->kind, table->name);
    ++m_changes;
    return known;
  });
}

void Tables::remove(const std::string& sqlName) {
  m_tables.with([&](auto& tables) {
    tables.erase(sqlName);
    ++m_changes;
  });
  m_removed.with([&](auto& removed) { removed.insert(sqlName); });
}

bool Tables::isRemoved(const std::string& sqlName) const {
  return m_removed.with([&](const auto& removed) { return removed.count(sqlName) != 0; });
}

bool Tables::lacksRules() const {
  return m_areRulesNeeded && names() && find(Tool::s_rules) == nullptr;
}

void Tables::setNames(std::set<std::string> names) {
  m_names.with([&](auto& known) { known = std::move(names); });
}

std::optional<std::set<std::string>> Tables::names() const {
  return m_names.with([](const auto& known) { return known; });
}

void Tables::noteAsked(Asked&& asked) {
  m_asked.with([&](Asked& all) { all.merge(asked); });
}

Tables::Asked Tables::takeAsked() {
  return m_asked.with([](Asked& all) { return std::exchange(all, {}); });
}

void Tables::noteUnknown(const std::string& sqlName, Clock::time_point now) {
  const std::optional<Tool::TableName> table = Tool::readTableName(sqlName);
  if (!table || !s_isServable(table->name) || sqlName.size() > s_longestName) return;
  m_unknown.with([&](auto& unknown) {
    const auto known = unknown.find(sqlName);
    if (known != unknown.end()) {
      known->second = now;
      return;
    }
    std::erase_if(unknown, [now](const auto& entry) { return now - entry.second > s_unknownTime; });
    if (unknown.size() < s_mostUnknown) unknown.emplace(sqlName, now);
  });
}

std::vector<std::string> Tables::unknown(Clock::time_point now) const {
  std::vector<std::string> names = m_unknown.with([now](const auto& unknown) {
    std::vector<std::string> recent;
    for (const auto& [name, time] : unknown) {
      if (now - time <= s_unknownTime) recent.push_back(name);
    }
    return recent;
  });
  std::erase_if(names, [this](const std::string& name) { return find(name) != nullptr; });
  return names;
}

std::vector<TablePointer> Tables::all() const {
  return m_tables.with([](const auto& tables) {
    std::vector<TablePointer> all(tables.size());
    std::transform(tables.begin(), tables.end(), all.begin(),
                   [](const auto& entry) { return entry.second; });
    return all;
  });
}

std::string metricsText(Metrics& metrics, const Tables& tables, Clock::time_point now) {
  std::size_t imageBytes = 0;
  for (const TablePointer& table : tables.all()) {
    const ImagePointer image = table->image();
    if (image != nullptr) imageBytes += image->bytes();
    const std::optional<Clock::duration> age = table->age(now);
    if (image == nullptr || !age) continue;
    metrics.tableState(table->sqlName(), image->rows().size(), image->brokenRows().count(), *age);
    // Here too: it may have gone since it was listed.
    if (table->state() == TableState::Gone) metrics.forgetTable(table->sqlName());
  }
  if (const ConfigurationPointer configuration = tables.configuration().image()) {
    metrics.tableState("configuration", configuration->users(), 0,
                       *tables.configuration().age(now));
  }
  metrics.memoryState("images", imageBytes);
  metrics.memoryState("answers", tables.answerMemory().used());
  metrics.memoryState("pages", tables.pageMemory().used());
  return metrics.text();
}

}  // namespace Tessel::Serve
