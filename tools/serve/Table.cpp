// A table that is served.
#include "serve/Table.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "cli/AliasTable.h"
#include "cli/MaskTable.h"

namespace Tessel::Serve {

namespace {

constexpr Clock::rep s_never = std::numeric_limits<Clock::rep>::min();

// A store name that may be served: it stands in file names and in the requests of mail servers.
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

}  // namespace

TableImage::TableImage(TableKind kind, const RowSource& source) {
  if (kind == TableKind::Alias) {
    m_alias = std::make_unique<AliasImage>(source);
  } else {
    m_mask = std::make_unique<MaskImage>(source);
  }
}

Table::Table(TableKind kind, const std::string& name, const Settings& settings)
    : m_kind(kind),
      m_sqlName(kind == TableKind::Alias ? Tool::aliasTableName(name) : Tool::maskTableName(name)),
      m_pages(settings.page, settings.maxReply - std::string_view("OK ").size(),
              s_reserve(settings)),
      m_confirmed(s_never) {}

ImagePointer Table::image() const {
  const std::lock_guard lock(m_mutex);
  return m_image;
}

void Table::publish(ImagePointer image) {
  ImagePointer old = std::move(image);
  {
    const std::lock_guard lock(m_mutex);
    m_image.swap(old);
    ++m_generation;
  }
  // A large image takes its time to go: not under the lock.
}

std::optional<Clock::duration> Table::age(Clock::time_point now) const noexcept {
  const Clock::rep confirmed = m_confirmed;
  if (confirmed == s_never) return std::nullopt;
  return now - Clock::time_point(Clock::duration(confirmed));
}

bool isTooOld(Clock::duration age, const Settings& settings) {
  return settings.stale && age > std::max<Clock::duration>(*settings.stale, s_outage);
}

TablePointer Tables::find(std::string_view sqlName) const {
  const std::lock_guard lock(m_mutex);
  const auto found = m_tables.find(sqlName);
  return found == m_tables.end() ? nullptr : found->second;
}

TablePointer Tables::add(const std::string& sqlName) {
  for (const TableKind kind : {TableKind::Alias, TableKind::Mask}) {
    const std::string base =
        kind == TableKind::Alias ? Tool::aliasTableName("") : Tool::maskTableName("");
    if (sqlName != base && !sqlName.starts_with(base + "_")) continue;
    if (sqlName == base + "_") return nullptr;
    const std::string name = sqlName == base ? "" : sqlName.substr(base.size() + 1);
    const std::vector<std::string>& wanted = m_settings.tables;
    const bool isWanted = name.empty() || wanted.empty() ||
                          std::find(wanted.begin(), wanted.end(), name) != wanted.end();
    if (!isWanted || !s_isServable(name)) return nullptr;
    const std::lock_guard lock(m_mutex);
    TablePointer& table = m_tables[sqlName];
    if (table == nullptr) table = std::make_shared<Table>(kind, name, m_settings);
    return table;
  }
  return nullptr;
}

std::vector<TablePointer> Tables::all() const {
  const std::lock_guard lock(m_mutex);
  std::vector<TablePointer> tables;
  for (const auto& [name, table] : m_tables) tables.push_back(table);
  return tables;
}

}  // namespace Tessel::Serve
