// Disabled users of the configuration.
#include "serve/answer/DisabledUser.h"

#include <string>

#include "tables/AddressKey.h"
#include "tables/Extension.h"

namespace Tessel::Serve {

std::string baseKey(std::string_view address, const Settings& settings) {
  if (settings.extension == ExtensionRule::Off) return "";
  const Tool::ExtendedAddress cut = Tool::cutExtension(address, settings.delimiter);
  std::string key;
  return !cut.extension.empty() && Tool::addressKey(cut.base, key) ? key : "";
}

bool isDisabledUser(const ConfigurationImage& users, std::string_view address,
                    const Settings& settings) {
  std::string key;
  if (!users.hasDisabled() || !Tool::addressKey(address, key)) return false;
  if (users.isDisabled(key)) return true;
  return !users.hasUser(key) && users.isDisabled(baseKey(address, settings));
}

bool goesElsewhere(const Tables& tables, std::string_view address, const Table* expanded,
                   const Rules& rules) {
  std::string key;
  if (!Tool::addressKey(address, key)) return false;
  const std::string base = baseKey(address, tables.settings());
  for (const TablePointer& table : tables.all()) {
    if (table->kind() != TableKind::Alias) continue;
    const ImagePointer image = table->image();
    if (image == nullptr) return true;
    const auto isAlias = [&](const std::string& asked) {
      return image->alias().isAlias(asked) &&
             rules.presence(table->sqlName(), asked) != RuleImage::Presence::Expired;
    };
    if (isAlias(base) || (table.get() != expanded && isAlias(key))) return true;
  }
  return false;
}

}  // namespace Tessel::Serve
