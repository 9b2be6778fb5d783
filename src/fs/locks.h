#pragma once

#include "fs/owned_fd.h"

#include <string>
#include <vector>

namespace maintenance {

/// Holds the maintenance locks of scopes for as long as it lives. The locks are advisory record locks of
/// this process: they vanish with it, and would vanish if anything else here opened and closed a lock
/// file.
class Locks {
public:
    /// Takes the lock of every scope of `scopes`, each once, in ascending byte order; never waits.
    ///
    /// throws  Invalid "maintenance lock is unsafe"                 a link, a foreign type, mode, owner or
    ///                                                              link count, or exchanged meanwhile
    ///         Invalid "cannot open the maintenance lock"
    ///         Invalid "another maintenance transaction is active"  another process holds it
    ///         what openFixedDirectory and assignCreatedOwner throw
    /// Locks taken before a failure are released; lock files stay in place.
    explicit Locks(std::vector<std::string> scopes);
    /// Releases the locks, last taken first.
    ~Locks();
    Locks(const Locks&) = delete;
    Locks& operator=(const Locks&) = delete;

private:
    std::vector<OwnedFd> held_;
};

} // namespace maintenance
