// Comparison of texts without regard to ASCII letter case.
#ifndef TSL_BASE_STRINGCOMPARENOCASE_H
#define TSL_BASE_STRINGCOMPARENOCASE_H

#include <cstddef>
#include <string_view>

#include "base/Export.h"

namespace Tessel {

// True when `a` and `b` are equal without regard to the case of ASCII letters; other bytes compare
// as they are, whatever the locale. With `length` 0 the whole texts are compared, otherwise at most
// their first `length` bytes. Any thread.
TSL_EXPORT bool stringCompareNoCase(std::string_view a, std::string_view b,
                                    std::size_t length) noexcept;

}  // namespace Tessel

#endif
