#include "transaction/recovery.h"

#include "fs/existence.h"
#include "fs/fixed_file.h"
#include "fs/publish.h"
#include "fs/removal.h"
#include "transaction/prepared_state.h"
#include "transaction/transaction_directory.h"
#include "transaction/transaction_scopes.h"
#include "validate/invalid.h"
#include "validate/text_fields.h"

#include <algorithm>

namespace maintenance {

namespace {

constexpr const char* anotherActive = "another durable maintenance transaction is active";

bool hasLease(const std::string& scope) { return somethingStandsAt(activePath(scope)); }

/// Tells whether a lease's text names the transaction, whatever else it says.
bool namesTransaction(const std::string& lease, const std::string& id)
{
    const std::string line = "transaction=" + id;
    const auto lines = splitLines(lease);
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

/// Reads a lease of whatever owner and mode.
std::string readAnyLease(const std::string& scope)
{
    const std::string subject = "durable transaction lease";
    const ExaminedFile file = regular(placeInScope(scope, activePath(scope)), subject);
    if (file.status.st_size > largestMetadata)
        throw Invalid(subject + " ownership or mode is unsafe");
    return readContent(openExamined(file, subject), subject);
}

/// Tells whether a scope's lease may be the transaction's: it names it, or is a file of which nobody can
/// tell. A link is not, and neither is a foreign text, whatever its owner and mode.
bool mayHoldLease(const std::string& scope, const std::string& id)
{
    const auto standing = linkStatus(activePath(scope));
    if (!standing || !S_ISREG(standing->st_mode))
        return false;
    try {
        return namesTransaction(readAnyLease(scope), id);
    } catch (const Invalid&) {
        return true;
    }
}

/// Discards a directory whose preparation was interrupted before its state was published. A lease of this
/// transaction contradicts that: then the state is what got lost, and nothing may be thrown away.
void discardUnprepared(const Descriptor& descriptor)
{
    for (const std::string& scope : involvedScopes(descriptor))
        if (mayHoldLease(scope, descriptor.id))
            throw Invalid(anotherActive);
    removeTransactionDirectory(descriptor);
}

} // namespace

bool recoverCompleted(const Descriptor& descriptor)
{
    if (!somethingStandsAt(completedPath(descriptor)))
        return false;
    const PreparedState state = parsePrepared(completedPath(descriptor), authorityScope(descriptor));
    requireStateBinding(descriptor, state);
    const std::string completed = preparedText(state);
    const std::vector<std::string> scopes = involvedScopes(descriptor);
    for (const std::string& scope : scopes)
        if (hasLease(scope) && readLease(scope) != completed)
            throw Invalid("completed transaction has a foreign active lease");
    const bool hasDirectory = somethingStandsAt(transactionRoot(descriptor));
    if (hasDirectory)
        validateTransactionDirectory(descriptor);

    for (const std::string& scope : scopes)
        if (hasLease(scope))
            removeFixedPath(activePath(scope));
    if (hasDirectory)
        removeTransactionDirectory(descriptor);
    clearPending(descriptor);
    return true;
}

bool resumePrepared(const Descriptor& descriptor)
{
    if (!somethingStandsAt(transactionRoot(descriptor)))
        return false;
    validateTransactionDirectory(descriptor);
    const std::filesystem::path prepared = preparedPath(transactionRoot(descriptor));
    if (!somethingStandsAt(prepared)) {
        discardUnprepared(descriptor);
        return false;
    }
    const PreparedState state = parsePrepared(prepared, authorityScope(descriptor));
    requireStateBinding(descriptor, state);
    const std::string lease = preparedText(state);
    const std::vector<std::string> scopes = involvedScopes(descriptor);
    for (const std::string& scope : scopes)
        if (hasLease(scope) && readLease(scope) != lease)
            throw Invalid(anotherActive);
    for (const std::string& scope : scopes)
        if (!hasLease(scope))
            text(activePath(scope), lease);
    return true;
}

} // namespace maintenance
