// Finds out whether the configuration has changed, without reading it.
#ifndef TSL_CMF_STATEMARK_H
#define TSL_CMF_STATEMARK_H

#include <array>
#include <cstdint>

#include "base/Export.h"

namespace Tessel::CMF {

// What is different after a change. A value.
struct StateMark {
  std::uint64_t transaction = 0;  // Of the last change; counts commits.
  // Of the last change as data.mdb has it. Another one than `transaction`, and not for a moment
  // only, after data.mdb was overwritten while programs use it: what they read is not the newest
  // state.
  std::uint64_t newest = 0;
  std::array<std::uint64_t, 4> files{};  // Device and inode of data.mdb and of lock.mdb.
  std::array<std::int64_t, 3> data{};    // Size of data.mdb, and when it was last written to.

  friend bool operator==(const StateMark&, const StateMark&) = default;
};

// The mark of the state that is newest now or that the calling thread has locked. `data` is always
// that of now: while it changes and `transaction` does not, somebody writes into data.mdb, before a
// commit or, which damages what readers see, instead of one. Throws Exception, code 4, when the
// configuration cannot be read. Any thread.
TSL_EXPORT StateMark stateMark();

}  // namespace Tessel::CMF

#endif
