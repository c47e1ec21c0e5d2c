// Reading table names, and the C functions that hand them out.
#include "capi/AddressMapTableExtension.h"

#include <algorithm>

#include "database/QueryTableNames.h"
#include "map/AddressMapMySQL.h"
#include "tsl_address_map.h"

void AdapterTableExtension::operator()(const std::string& table) const {
  if (table.empty() || table == m_prefix || !table.starts_with(m_prefix)) return;
  m_extensions.insert(table.substr(m_prefix.size() + 1));
}

AddressMapTableExtension::AddressMapTableExtension(const std::string& prefix) {
  Tessel::AddressMapDbMySQL backend(false);
  const Tessel::Database::QueryTableNames tables(backend.connection());
  std::for_each(tables.names().begin(), tables.names().end(),
                AdapterTableExtension(prefix, m_extensions));
  if (m_extensions.empty()) return;
  m_extensionArray = std::make_unique<char*[]>(m_extensions.size() + 1);
  // C callers get the type that they expect. The header forbids them to write.
  std::transform(m_extensions.begin(), m_extensions.end(), m_extensionArray.get(),
                 [](const std::string& name) { return const_cast<char*>(name.c_str()); });
}

AddressMapTableExtension::~AddressMapTableExtension() = default;

namespace {

// Every exception ends here: a caller that lists tables has no data at stake.
tsl_address_map_extensions s_create(const char* prefix) {
  try {
    return reinterpret_cast<tsl_address_map_extensions>(new AddressMapTableExtension(prefix));
  } catch (...) {
    return nullptr;
  }
}

AddressMapTableExtension* s_objectOf(tsl_address_map_extensions extensions) {
  return reinterpret_cast<AddressMapTableExtension*>(extensions);
}

}  // namespace

tsl_address_map_extensions tsl_address_alias_extensions_create() {
  return s_create("alias");
}

tsl_address_map_extensions tsl_address_mask_extensions_create() {
  return s_create("mask");
}

char** tsl_address_map_extensions_get(tsl_address_map_extensions extensions) {
  return extensions != nullptr ? s_objectOf(extensions)->extensionsAsCharArray() : nullptr;
}

void tsl_address_map_extensions_destroy(tsl_address_map_extensions extensions) {
  delete s_objectOf(extensions);
}
