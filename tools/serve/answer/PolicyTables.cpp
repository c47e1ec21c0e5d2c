// What questions about policies are answered from.
#include "serve/answer/PolicyTables.h"

#include <algorithm>
#include <utility>

#include "serve/base/Map.h"

namespace Tessel::Serve {

namespace {

// Contexts that are remembered: each mail server has one or two.
constexpr std::size_t s_mostContexts = 64;

constexpr std::string_view s_separators = " ,\t";

// The store names of the tables that `text` names; empty when it names anything else.
std::vector<std::string> s_namesOf(std::string_view text) {
  std::vector<std::string> names;
  for (std::size_t start = 0; (start = text.find_first_not_of(s_separators)) != text.npos;) {
    text.remove_prefix(start);
    const std::string_view map = text.substr(0, text.find_first_of(s_separators));
    text.remove_prefix(map.size());
    const std::size_t separator = std::min(map.find_first_of(".:"), map.size());
    if (mapOf(map.substr(0, separator)) != Map::Alias) return {};
    names.emplace_back(map.substr(std::min(separator + 1, map.size())));
  }
  if (names.empty()) names.emplace_back();
  return names;
}

}  // namespace

const PolicyTables::Context& PolicyTables::refresh(std::string_view text, Clock::time_point now) {
  Context& context = contextOf(text);
  context.why = context.names.empty() ? "policy_context names no tables of aliases" : "";
  if (context.why.empty() && context.data.sources.empty()) findTables(context, now);
  std::vector<std::uint64_t> content;
  refreshSources(context, context.data.sources, content, now);
  refreshSources(context, context.masks, content, now);
  if (!context.why.empty()) return context;
  PolicyData& data = context.data;
  data.whyNoRules = m_rules.refresh(now);
  if (!m_rules.hasTable()) data.whyNoRules = "there is no table of the rules of aliases";
  data.rules = data.whyNoRules.empty() ? m_rules.rules() : Rules();
  Configuration& configuration = m_tables.configuration();
  // Not needed before a rule is about users.
  data.users = configuration.isNeeded() ? configuration.use(m_tables.settings(), now) : nullptr;
  content.push_back(data.whyNoRules.empty() ? m_rules.number() : 0);
  content.push_back(data.users == nullptr ? 0 : data.users->number());
  if (content != context.content) context.number = ++m_last;
  context.content = std::move(content);
  return context;
}

void PolicyTables::sweep() {
  for (auto& [text, context] : m_contexts) {
    context.data = {};
    context.masks.clear();
  }
}

PolicyTables::Context& PolicyTables::contextOf(std::string_view text) {
  const auto known = m_contexts.find(text);
  if (known != m_contexts.end()) return known->second;
  // Whoever asks with ever other ones must not fill the memory.
  if (m_contexts.size() >= s_mostContexts) m_contexts.clear();
  Context context;
  context.names = s_namesOf(text);
  return m_contexts.emplace(text, std::move(context)).first->second;
}

void PolicyTables::findTables(Context& context, Clock::time_point now) {
  context.masks.clear();
  for (const std::string& name : context.names) {
    const std::string sqlName = sqlNameOf(TableKind::Alias, name);
    const TablePointer table = m_tables.find(sqlName);
    if (table == nullptr) {
      m_tables.noteUnknown(sqlName, now);
      context.why = "there is no table " + sqlName;
      context.data.sources.clear();
      return;
    }
    context.data.sources.push_back({table, nullptr, 0});
    const TablePointer masks = m_tables.find(sqlNameOf(TableKind::Mask, name));
    if (masks != nullptr) context.masks.push_back({masks, nullptr, 0});
  }
}

// Has each source have the newest image, and adds what it is to `content`.
void PolicyTables::refreshSources(Context& context, std::vector<PolicyData::Source>& sources,
                                  std::vector<std::uint64_t>& content, Clock::time_point now) {
  for (PolicyData::Source& source : sources) {
    const std::string_view why = source.table->whyUnable(now, m_tables.settings());
    if (!why.empty()) context.why = source.table->sqlName() + ": " + std::string(why);
    const std::uint64_t generation = source.table->generation();
    if (generation != source.generation) source.image = source.table->image();
    source.generation = generation;
    content.push_back(source.table->number());
    content.push_back(generation);
  }
}

}  // namespace Tessel::Serve
