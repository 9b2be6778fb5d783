#pragma once

#include "plan/descriptor.h"

namespace maintenance {

/// Carries out prepare-move: proves that the installations are what the descriptor recorded, takes the
/// snapshots from which everything can be restored, and marks the transaction active in every involved
/// scope. Changes no installed file and no receipt. A transaction that is already prepared gets its missing
/// leases; after a failure no transaction is left behind.
///
/// throws  Invalid "maintenance transaction replay is refused"
///         Invalid "installed version changed before maintenance"
///         Invalid "target-side downgrade is refused"
///         Invalid "source installation changed before maintenance"
///         Invalid "adopt requires byte-identical bundles"
///         what Locks, rejectCommonDowngrade, inspect, resumePrepared, rejectActiveOrReplay, openTransaction
///         and snapshotScopes throw
void prepare(const Descriptor& descriptor);

} // namespace maintenance
