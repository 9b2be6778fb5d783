#pragma once

#include "plan/descriptor.h"

namespace maintenance {

/// Carries out rollback-move: puts every involved scope back into the state that prepare-move captured and
/// ends the transaction. Rolling back a completed transaction only finishes its clean-up. After a failure the
/// transaction stays prepared and can be rolled back again.
///
/// throws  Invalid "pkgutil receipt registration changed; rollback cannot restore package registration"
///         (nothing was changed)
///         what Locks, recoverCompleted, validateTransactionDirectory, verifyPrepared,
///         registrationsUnchanged, restore and finishTransaction throw
void rollback(const Descriptor& descriptor);

} // namespace maintenance
