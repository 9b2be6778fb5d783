#include "transaction/rollback.h"

#include "fs/locks.h"
#include "transaction/recovery.h"
#include "transaction/restoration.h"
#include "transaction/second_names.h"
#include "transaction/transaction_directory.h"
#include "transaction/transaction_scopes.h"
#include "validate/invalid.h"

namespace maintenance {

void rollback(const Descriptor& descriptor)
{
    const Locks locks(involvedScopes(descriptor));
    removeSecondNames(descriptor);
    if (recoverCompleted(descriptor))
        return;
    validateTransactionDirectory(descriptor);
    const PreparedState state = verifyPrepared(descriptor, transactionRoot(descriptor));
    if (!registrationsUnchanged(descriptor))
        throw Invalid("pkgutil receipt registration changed; rollback cannot restore package registration");
    restore(descriptor);
    finishTransaction(descriptor, state);
}

} // namespace maintenance
