#pragma once

#include "plan/descriptor.h"

namespace maintenance {

/// Carries out uninstall-product: removes the descriptor's products from its target scope, with the shared
/// package when no product is left there, as a durable transaction that a later run resumes. Deletes only
/// files that receipts, descriptor and snapshot all vouch for.
///
/// throws  Invalid "uninstall descriptor does not match the installed product"
///         Invalid "receipt-owned file changed; refusing uninstall"
///         what Locks, recoverCompleted, resumePrepared, verifyPrepared, rejectActiveOrReplay,
///         openTransaction, snapshotScopes, requireExactReceipts, removeOwned, removeReceipt, aggregate and
///         finishTransaction throw
void uninstall(const Descriptor& descriptor);

} // namespace maintenance
