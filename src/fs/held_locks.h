#pragma once

#include <sys/stat.h>

namespace maintenance {

// A record lock is dropped as soon as its process closes any descriptor of the locked file. What another
// account can exchange or link may lead to a lock file, so whoever opens such a file asks here first.

/// Remembers the lock file that `status` describes as held by this process.
void rememberHeldLock(const struct stat& status);

/// Forgets every held lock file; called when the locks are released.
void forgetHeldLocks();

/// Tells whether `status` describes a lock file that this process holds. A descriptor of such a file must
/// stay open until the process ends.
bool isHeldLock(const struct stat& status);

} // namespace maintenance
