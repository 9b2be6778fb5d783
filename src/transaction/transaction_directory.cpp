#include "transaction/transaction_directory.h"

#include "fs/directory_entries.h"
#include "fs/existence.h"
#include "fs/fixed_directory.h"
#include "fs/fixed_file.h"
#include "fs/owner_power.h"
#include "fs/publish.h"
#include "fs/removal.h"
#include "fs/settling.h"
#include "plan/pending_install.h"
#include "platform/durable_sync.h"
#include "transaction/checkpoint.h"
#include "transaction/transaction_scopes.h"
#include "validate/invalid.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>

namespace maintenance {

namespace {

constexpr mode_t transactionMode = 0700;

std::string transactionsDirectory() { return std::string(maintenanceDirectory) + "/Transactions"; }

void requireNew(int parent, const std::string& id)
{
    struct stat status = {};
    if (::fstatat(parent, id.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        throw Invalid("maintenance transaction already exists");
    if (errno != ENOENT)
        throw Invalid("cannot create maintenance transaction securely");
}

/// Brings a transaction directory that was just made into its final state.
void secureNewDirectory(int parent, const std::string& id, uid_t owner)
{
    const OwnedFd directory = walkOneDirectory(parent, id);
    if (!directory)
        throw Invalid("maintenance transaction was redirected during creation");
    assignCreatedOwner(parent, directory.get(), owner);
    checkDirectory(directory.get(), owner);
    if (!synchronize(parent, Durability::Record))
        throw Invalid("cannot create maintenance transaction securely");
}

void validateEntries(int directory, uid_t owner, int depth);

void validateEntry(int directory, const std::string& name, uid_t owner, int depth)
{
    struct stat status = {};
    if (::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        throw Invalid("transaction metadata changed during validation");
    if (S_ISDIR(status.st_mode)) {
        const OwnedFd entered = walkOneDirectory(directory, name);
        if (!entered)
            throw Invalid("transaction metadata contains a redirected directory");
        checkDirectory(entered.get(), owner);
        validateEntries(entered.get(), owner, depth + 1);
        return;
    }
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1 || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 ||
        status.st_uid != owner)
        throw Invalid("transaction metadata contains a link or unsafe file");
}

void validateEntries(int directory, uid_t owner, int depth)
{
    const auto names = directoryEntries(directory);
    if (!names || depth == deepestTree)
        throw Invalid("cannot inspect transaction directory");
    for (const std::string& name : *names)
        validateEntry(directory, name, owner, depth);
}

void publishLeases(const Descriptor& descriptor, const std::string& prepared)
{
    std::size_t index = 0;
    for (const std::string& scope : involvedScopes(descriptor)) {
        text(activePath(scope), prepared);
        checkpoint("prepare.lease." + std::to_string(index++));
    }
}

/// Tells whether what stands in a lease's place could be this transaction's. What
/// somebody planted there could not.
bool couldBeLease(const struct stat& standing, const std::string& scope, const std::string& prepared)
{
    return S_ISREG(standing.st_mode) && standing.st_uid == scopeOwner(scope) &&
           standing.st_size == static_cast<off_t>(prepared.size());
}

/// Removes the scope's lease when it holds this transaction's text; false when that could not be done.
bool takeBackLease(const std::string& scope, const std::string& prepared)
{
    try {
        const auto standing = linkStatus(activePath(scope));
        if (standing && couldBeLease(*standing, scope, prepared) && readLease(scope) == prepared)
            removeFixedPath(activePath(scope));
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

/// Takes back what a failed opening has left. A lease goes when it holds this transaction's text, also one
/// whose publication reported an error after it had become visible. As long as a lease stays, so does the
/// directory, from which the transaction can be resumed or rolled back.
void takeBack(const Descriptor& descriptor, const std::string& prepared)
{
    bool leasesGone = true;
    if (!prepared.empty())
        for (const std::string& scope : involvedScopes(descriptor))
            leasesGone = takeBackLease(scope, prepared) && leasesGone;
    if (leasesGone)
        removeTransactionDirectory(descriptor);
}

void requireLeases(const Descriptor& descriptor, const std::string& prepared, const char* changed)
{
    for (const std::string& scope : involvedScopes(descriptor))
        if (readLease(scope) != prepared)
            throw Invalid(changed);
}

bool hasPendingAttempt(const std::string& scope)
{
    try {
        return somethingStandsAt(absolutePath(pendingInstallPlace(scope)));
    } catch (const std::system_error&) {
        throw Invalid("pending installation attempt cannot be inspected");
    }
}

} // namespace

void createTransactionDirectory(const Descriptor& descriptor)
{
    const std::string scope = authorityScope(descriptor);
    const OwnedFd parent = openFixedDirectory(scope, transactionsDirectory(), true, true);
    requireNew(parent.get(), descriptor.id);
    const uid_t owner = scopeOwner(scope);
    const int made = withOwnersPower(
        parent.get(), owner, [&] { return ::mkdirat(parent.get(), descriptor.id.c_str(), transactionMode); });
    if (made != 0)
        throw Invalid("cannot create maintenance transaction securely");
    try {
        secureNewDirectory(parent.get(), descriptor.id, owner);
    } catch (...) {
        ::unlinkat(parent.get(), descriptor.id.c_str(), AT_REMOVEDIR);
        throw;
    }
}

void validateTransactionDirectory(const Descriptor& descriptor)
{
    const std::string scope = authorityScope(descriptor);
    const OwnedFd directory =
        openFixedDirectory(scope, transactionsDirectory() + "/" + descriptor.id, false, true);
    validateEntries(directory.get(), scopeOwner(scope), 1);
}

void removeTransactionDirectory(const Descriptor& descriptor)
{
    removeFixedPath(preparedPath(transactionRoot(descriptor)));
    removeFixedPath(transactionRoot(descriptor));
}

void rejectReplay(const Descriptor& descriptor)
{
    if (somethingStandsAt(completedPath(descriptor)))
        throw Invalid("maintenance transaction replay is refused");
}

void rejectActiveOrReplay(const Descriptor& descriptor)
{
    rejectReplay(descriptor);
    for (const std::string& scope : involvedScopes(descriptor))
        if (somethingStandsAt(activePath(scope)))
            throw Invalid("another durable maintenance transaction is active");
}

PreparedState openTransaction(const Descriptor& descriptor, const std::function<void()>& capture)
{
    createTransactionDirectory(descriptor);
    std::string prepared;
    try {
        capture();
        PreparedState state = bindingState(descriptor);
        prepared = preparedText(state);
        text(preparedPath(transactionRoot(descriptor)), prepared);
        publishLeases(descriptor, prepared);
        return state;
    } catch (...) {
        try {
            takeBack(descriptor, prepared);
        } catch (const std::exception&) {
            // The failure that led here is the one to report; the next run finds what could not be taken
            // back and recovers it.
        }
        throw;
    }
}

void finishTransaction(const Descriptor& descriptor, const PreparedState& state)
{
    const std::string prepared = preparedText(state);
    requireLeases(descriptor, prepared, "durable transaction lease changed before completion");
    // Once the record stands, nobody repeats what was done in the scopes.
    for (const std::string& scope : involvedScopes(descriptor))
        settleScope(scope);
    text(completedPath(descriptor), prepared);
    std::size_t index = 0;
    for (const std::string& scope : involvedScopes(descriptor)) {
        removeFixedPath(activePath(scope));
        checkpoint("finish.lease." + std::to_string(index++));
    }
    removeTransactionDirectory(descriptor);
    clearPending(descriptor);
}

bool isRecordedAsCompleted(const Descriptor& descriptor, const PreparedState& state)
{
    try {
        if (!somethingStandsAt(completedPath(descriptor)))
            return false;
        return readText(completedPath(descriptor), authorityScope(descriptor),
                        "prepared transaction state") == preparedText(state);
    } catch (const Invalid&) {
        return true;
    }
}

void abandonTransaction(const Descriptor& descriptor, const PreparedState& state)
{
    requireLeases(descriptor, preparedText(state), "durable transaction lease changed during recovery");
    for (const std::string& scope : involvedScopes(descriptor))
        removeFixedPath(activePath(scope));
}

void clearPending(const Descriptor& descriptor)
{
    const std::string& scope = descriptor.targetScope;
    if (hasPendingAttempt(scope) && readPending(scope).transaction == descriptor.id)
        removeFixed(pendingInstallPlace(scope));
}

} // namespace maintenance
