// What pins the layout of classes: the virtual slot of a member function.
#ifndef TSL_TESTS_SUPPORT_LAYOUT_H
#define TSL_TESTS_SUPPORT_LAYOUT_H

#include <cstddef>
#include <cstring>
#include <utility>

namespace Tessel::Testing {

// Index of the virtual member function `function` in the virtual table of its class, or -1 when it
// is not virtual. In the Itanium C++ ABI (section 2.3) a pointer to a virtual member function holds
// 1 plus the offset of its slot; other functions have even addresses.
template <class Function>
int virtualSlot(Function function) {
  std::ptrdiff_t words[2];
  static_assert(sizeof(function) == sizeof(words));
  std::memcpy(words, &function, sizeof(words));
  if (words[0] % 2 == 0) return -1;
  return static_cast<int>((words[0] - 1) / static_cast<std::ptrdiff_t>(sizeof(void*)));
}

// The address of a member as a number, to compare the order of members.
template <class Member>
const char* addressOf(const Member& member) {
  return reinterpret_cast<const char*>(&member);
}

// True when the objects at the given addresses are in this order.
template <class... Addresses>
bool standInOrder(const char* first, const char* second, Addresses... others) {
  if (first >= second) return false;
  if constexpr (sizeof...(others) > 0) {
    return standInOrder(second, others...);
  } else {
    return true;
  }
}

}  // namespace Tessel::Testing

#endif
