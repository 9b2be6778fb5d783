#pragma once

#include "plan/descriptor.h"
#include "transaction/prepared_state.h"

#include <functional>
#include <string>

namespace maintenance {

/// Creates the transaction's directory, mode 0700, in its authority scope.
///
/// throws  Invalid "maintenance transaction already exists"
///         Invalid "cannot create maintenance transaction securely"
///         Invalid "maintenance transaction was redirected during creation"
///         what openFixedDirectory, assignCreatedOwner and checkDirectory throw
void createTransactionDirectory(const Descriptor& descriptor);

/// Requires the existing transaction directory to hold only safe directories and single-linked regular files
/// of the authority scope's owner, none writable for others.
///
/// throws  Invalid "cannot inspect transaction directory"
///         Invalid "transaction metadata changed during validation"
///         Invalid "transaction metadata contains a redirected directory"
///         Invalid "transaction metadata contains a link or unsafe file"
///         what openFixedDirectory and checkDirectory throw
void validateTransactionDirectory(const Descriptor& descriptor);

/// Removes the transaction's directory with everything in it. The prepared state goes first, durably, so that
/// a directory that has lost some of its snapshots is never taken for a prepared transaction.
/// Throws what removeFixedPath throws.
void removeTransactionDirectory(const Descriptor& descriptor);

/// Refuses a transaction that was completed before, or that an active one stands in the way of.
///
/// throws  Invalid "maintenance transaction replay is refused"
///         Invalid "another durable maintenance transaction is active"
void rejectActiveOrReplay(const Descriptor& descriptor);

/// Refuses a transaction that was completed before.
/// Throws Invalid "maintenance transaction replay is refused".
void rejectReplay(const Descriptor& descriptor);

/// Opens a new transaction: creates its directory, lets `capture` take the snapshots and prove what must
/// hold, then publishes the prepared state and the lease of every involved scope. On success the transaction
/// is prepared; after a failure neither lease nor directory is left, and the failure passes on unchanged.
///
/// capture  called once, while the directory is empty
/// throws   what createTransactionDirectory, `capture` and text throw
PreparedState openTransaction(const Descriptor& descriptor, const std::function<void()>& capture);

/// Ends a transaction successfully: completed record, leases, directory, pending attempt, in this order.
///
/// throws  Invalid "durable transaction lease changed before completion"  nothing was changed then
///         what readLease, settleScope, text, removeFixedPath and clearPending throw
void finishTransaction(const Descriptor& descriptor, const PreparedState& state);

/// Tells whether the completed record of this very transaction stands on disk. True also for a record that is
/// refused: then nothing may be taken back, and the next run decides. A failure of the machine passes on.
bool isRecordedAsCompleted(const Descriptor& descriptor, const PreparedState& state);

/// Drops the leases of a transaction that will not complete; its directory and snapshots stay.
///
/// throws  Invalid "durable transaction lease changed during recovery"  no lease was dropped then
///         what readLease and removeFixedPath throw
void abandonTransaction(const Descriptor& descriptor, const PreparedState& state);

/// Removes the pending attempt of the descriptor's target scope when it belongs to this transaction.
///
/// throws  Invalid "pending installation attempt cannot be inspected"
///         what readPending and removeFixed throw
void clearPending(const Descriptor& descriptor);

} // namespace maintenance
