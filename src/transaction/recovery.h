#pragma once

#include "plan/descriptor.h"

namespace maintenance {

/// Finishes the clean-up of a transaction whose completed record stands on disk: its leases, its directory,
/// its pending attempt. The record itself stays for ever, against a replay. Needs the locks of all involved
/// scopes.
///
/// returns  whether there was such a record
/// throws   Invalid "completed transaction has a foreign active lease"
///          what parsePrepared, requireStateBinding, readLease, validateTransactionDirectory, removeFixedPath
///          and clearPending throw
bool recoverCompleted(const Descriptor& descriptor);

/// Publishes the missing leases of a transaction whose prepared state stands on disk, and discards a
/// transaction directory that never got one. Needs the locks of all involved scopes.
///
/// returns  whether the transaction is prepared now
/// throws   Invalid "another durable maintenance transaction is active"
///          what validateTransactionDirectory, parsePrepared, requireStateBinding, readLease, text and
///          removeFixedPath throw
bool resumePrepared(const Descriptor& descriptor);

} // namespace maintenance
