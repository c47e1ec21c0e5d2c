// Disabled users of the configuration, whom --leave-out-disabled leaves out of answers.
#ifndef TSL_TOOLS_SERVE_ANSWER_DISABLEDUSER_H
#define TSL_TOOLS_SERVE_ANSWER_DISABLEDUSER_H

#include <string>
#include <string_view>

#include "serve/base/Settings.h"
#include "serve/image/ConfigurationImage.h"
#include "serve/image/Table.h"

namespace Tessel::Serve {

// True when `address` is a disabled user, or, as the extension rule of `settings` has it, what is
// left of it without its extension. Any thread.
bool isDisabledUser(const ConfigurationImage& users, std::string_view address,
                    const Settings& settings);

// The key of `address` without its extension; empty when it has none, or the extension rule is off.
// Any thread.
std::string baseKey(std::string_view address, const Settings& settings);

// True when mail to `address` goes elsewhere by an alias of `tables` that has not expired by
// `rules`, or may do so, as a table was not read yet. `expanded` is the table whose aliases were
// followed to the address, where an alias of that very address is its own member; null for none.
// Any thread.
bool goesElsewhere(const Tables& tables, std::string_view address, const Table* expanded,
                   const Rules& rules);

}  // namespace Tessel::Serve

#endif
