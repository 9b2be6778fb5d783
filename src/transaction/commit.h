#pragma once

#include "plan/descriptor.h"

namespace maintenance {

/// Carries out commit-move: proves that the installer placed exactly what the descriptor describes, removes
/// what the previous installation left behind in the target scope and the products from the source scope,
/// rebuilds the indexes and ends the transaction. Committing a completed transaction only finishes its
/// clean-up.
///
/// A failure before the transaction was verified changes nothing. A later one puts the prepared state back
/// and abandons the transaction, unless packages have been registered or forgotten since: then the
/// transaction stays prepared, to be carried forward.
///
/// throws  Invalid "package-installed file hash is wrong"
///         Invalid "source receipt inventory changed during maintenance"
///         Invalid "pkgutil receipt registration changed; transaction requires forward recovery"
///         what Locks, recoverCompleted, validateTransactionDirectory, verifyPrepared, requireExactReceipts,
///         removeOwned, removeReceipt, aggregate, finishTransaction, restore and abandonTransaction throw
void commit(const Descriptor& descriptor);

} // namespace maintenance
