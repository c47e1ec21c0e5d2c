// Disabled users of the configuration.
#include "serve/answer/DisabledUser.h"

#include <string>

#include "tables/AddressKey.h"
#include "tables/Extension.h"

namespace Tessel::Serve {

namespace {

// The key of `address` without its extension; empty when it has none.
std::string s_baseKey(std::string_view address, const Settings& settings) {
  if (settings.extension == ExtensionRule::Off) return "";
  const Tool::ExtendedAddress cut = Tool::cutExtension(address, settings.delimiter);
  std::string key;
  return !cut.extension.empty() && Tool::addressKey(cut.base, key) ? key : "";
}

}  // namespace

bool isDisabledUser(const ConfigurationImage& users, std::string_view address,
                    const Settings& settings) {
  std::string key;
  if (!users.hasDisabled() || !Tool::addressKey(address, key)) return false;
  if (users.isDisabled(key)) return true;
  return !users.hasUser(key) && users.isDisabled(s_baseKey(address, settings));
}

bool goesElsewhere(const Tables& tables, std::string_view address, const Table* expanded) {
  std::string key;
  if (!Tool::addressKey(address, key)) return false;
  const std::string baseKey = s_baseKey(address, tables.settings());
  for (const TablePointer& table : tables.all()) {
    if (table->kind() != TableKind::Alias) continue;
    const ImagePointer image = table->image();
    if (image == nullptr || image->alias().isAlias(baseKey)) return true;
    if (table.get() != expanded && image->alias().isAlias(key)) return true;
  }
  return false;
}

}  // namespace Tessel::Serve
