// A setting for all sessions of a program that wants to read what others have just written.
#ifndef TSL_DATABASE_SESSIONSETTING_H
#define TSL_DATABASE_SESSIONSETTING_H

#include "base/Export.h"

namespace Tessel::Database {

// Has the statements of every connection that is opened from now on wait until its host has applied
// what was committed on any node of its Galera cluster before (wsrep_sync_wait=7), or ends that. It
// costs one statement for each connection, and waits only on a cluster; servers without this
// variable are used as they are. A node that cannot wait counts as cut off. For people, who write
// on one node and look on the next, and against a node that was suspended: for a moment it takes
// itself for a part of its cluster, with the rows of that time. Any thread; at the start nothing is
// waited for.
TSL_EXPORT void waitForOtherNodes(bool wanted) noexcept;

// Whether it is wanted now.
bool waitsForOtherNodes() noexcept;

}  // namespace Tessel::Database

#endif
