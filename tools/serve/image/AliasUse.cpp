// Notes in a file which aliases mail servers have asked for.
#include "serve/image/AliasUse.h"

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <filesystem>

#include "disk/AtomicFile.h"
#include "serve/image/SnapshotFile.h"

namespace Tessel::Serve {

namespace {

// Time between two writes when there is something new, and when there is not.
constexpr auto s_shortest = std::chrono::minutes(1);
constexpr auto s_longest = std::chrono::hours(1);

Tool::UsedAliases::Time s_now() {
  return std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
}

}  // namespace

AliasUse::AliasUse(const Settings& settings, Tables& tables, Log& log)
    : m_path(settings.countUse), m_tables(tables), m_log(log) {
  try {
    m_used = read(m_path);
    if (!m_used) m_used.emplace(s_now());
  } catch (const std::exception& exception) {
    m_log.error("the use of aliases is not counted: " + m_path + ": " + exception.what());
  }
}

std::optional<Tool::UsedAliases> AliasUse::read(const std::string& path) {
  SnapshotDirectory(Tool::directoryOf(path)).check();
  if (!std::filesystem::exists(std::filesystem::symlink_status(path))) return std::nullopt;
  return Tool::UsedAliases(readOwnFile(path));
}

void AliasUse::look() {
  // A disk that hangs must not make a queue grow.
  if (!m_thread.isBusy()) m_thread.post([this] { proceed(Clock::now()); });
}

void AliasUse::finish() {
  m_thread.finish();
  proceed(Clock::time_point::max());
}

void AliasUse::proceed(Clock::time_point now) try {
  collect();
  const Clock::duration interval = m_hasNew ? Clock::duration(s_shortest) : s_longest;
  if (!m_used || (m_lastWrite && now < *m_lastWrite + interval)) return;
  m_lastWrite = now;
  write();
  m_hasNew = false;
  m_isFailing = false;
} catch (const std::exception& exception) {
  if (!m_isFailing)
    m_log.error("the use of aliases is not saved: " + std::string(exception.what()));
  m_isFailing = true;
}

void AliasUse::collect() {
  for (const std::string& line : m_tables.takeAsked()) {
    if (m_used && m_used->add(line)) m_hasNew = true;
  }
}

void AliasUse::write() {
  // Images are newer than what was collected: nothing is left out that was added again since.
  m_used->keep(
      [this](const std::string& table, std::string_view key) { return isThere(table, key); });
  Tool::AtomicFile file(m_path, m_path + ".new", S_IRUSR | S_IWUSR);
  m_used->write(s_now(), [&file](std::string_view part) { file.write(part); });
  file.finish();
}

// False when the table is known not to have the alias: it may be one that is just being restored.
bool AliasUse::isThere(const std::string& table, std::string_view key) const {
  const TablePointer found = m_tables.find(table);
  if (found == nullptr) return !m_tables.isRemoved(table);
  if (found->kind() != TableKind::Alias) return false;
  const ImagePointer image = found->image();
  return image == nullptr || found->state() != TableState::Good || image->alias().isAlias(key);
}

}  // namespace Tessel::Serve
