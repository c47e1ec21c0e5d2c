// Sizes in bytes with their unit, as in 64_KiB.
#ifndef TSL_BASE_SIZES_H
#define TSL_BASE_SIZES_H

#include <cstddef>

namespace Tessel {

consteval std::size_t operator""_KiB(unsigned long long number) {
  return number << 10U;
}

consteval std::size_t operator""_MiB(unsigned long long number) {
  return number << 20U;
}

}  // namespace Tessel

#endif
