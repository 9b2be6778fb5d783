#include "transaction/commit.h"

#include "fs/existence.h"
#include "fs/fixed_file.h"
#include "fs/locks.h"
#include "inventory/installed_products.h"
#include "receipts/exact_receipts.h"
#include "receipts/package_contents.h"
#include "receipts/products.h"
#include "receipts/receipt_removal.h"
#include "receipts/receipt_snapshot.h"
#include "transaction/checkpoint.h"
#include "transaction/owned_removal.h"
#include "transaction/recovery.h"
#include "transaction/restoration.h"
#include "transaction/second_names.h"
#include "transaction/snapshot.h"
#include "transaction/transaction_directory.h"
#include "transaction/transaction_scopes.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"
#include "validate/owned_path.h"

#include <map>
#include <set>
#include <utility>

namespace maintenance {

namespace {

/// Path to the digest that the file had when the transaction was prepared.
using PreparedHashes = std::map<std::string, std::string>;

/// The digest recorded for a path, or "" when there is none.
std::string preparedHash(const PreparedHashes& hashes, const std::string& path)
{
    const auto found = hashes.find(path);
    return found == hashes.end() ? std::string() : found->second;
}

/// Device and inode of every target file that is there.
std::set<std::pair<dev_t, ino_t>> targetIdentities(const Descriptor& descriptor)
{
    std::set<std::pair<dev_t, ino_t>> identities;
    for (const File& file : descriptor.files)
        if (const auto status = linkStatus(absolutePath({descriptor.targetScope, file.path})))
            identities.emplace(status->st_dev, status->st_ino);
    return identities;
}

/// Removes what the previous installation had in the target scope and the new one has no longer.
void removeStaleFiles(const Descriptor& descriptor, const ReceiptInventory& live)
{
    PreparedHashes stale = snapshotInventory(authoritySnapshot(descriptor, "target"));
    for (const File& file : descriptor.files)
        stale.erase(file.path);
    if (stale.empty())
        return;

    // Where the file system ignores case, a path that is spelled otherwise can lead to a new file.
    const auto current = targetIdentities(descriptor);
    const std::set<std::string> others = pathsOfOthers(live, affectedPackages(descriptor));
    for (const auto& [path, hash] : stale) {
        const FixedPlace place{descriptor.targetScope, safeRelative(path)};
        const auto status = linkStatus(absolutePath(place));
        const bool isCurrent = status && current.contains({status->st_dev, status->st_ino});
        if (!isCurrent && !others.contains(path))
            removeOwned(place, hash, Links::Refuse);
    }
}

void proveInstalledFiles(const Descriptor& descriptor)
{
    std::size_t index = 0;
    for (const File& file : descriptor.files) {
        if (hashOwnedFile({descriptor.targetScope, file.path}) != file.sha256)
            throw Invalid("package-installed file hash is wrong");
        checkpoint("publish." + std::to_string(index++));
    }
}

/// Requires every file of a source receipt to be what it was when the transaction was prepared. One that is
/// gone was removed by an earlier run that was interrupted.
void requireUnchangedFiles(const std::string& scope, const Receipt& receipt, const PreparedHashes& hashes)
{
    for (const ReceiptFile& file : receipt.files) {
        const FixedPlace place{scope, file.path};
        const std::string expected = preparedHash(hashes, file.path);
        if (expected.empty() || !somethingStandsAt(absolutePath(place)))
            continue;
        if (hashOwnedFile(place) != expected)
            throw Invalid("source receipt inventory changed during maintenance");
    }
}

void removeReceiptFiles(const std::string& scope, const Receipt& receipt, const PreparedHashes& hashes,
                        const std::set<std::string>& keep)
{
    for (const ReceiptFile& file : receipt.files)
        if (!keep.contains(file.path))
            removeOwned({scope, file.path}, preparedHash(hashes, file.path), Links::Refuse);
}

void removeProductPackages(const Descriptor& descriptor, const PreparedHashes& hashes,
                           const ReceiptInventory& live)
{
    const std::string& scope = descriptor.sourceScope;
    const std::set<std::string> others = pathsOfOthers(live, productPackages(descriptor));
    std::size_t index = 0;
    for (const Product& product : descriptor.products) {
        for (const char* kind : {"vst3", "au"}) {
            const std::size_t position = index++;
            const auto receipt = live.find(productPackageId(product.id, kind));
            if (receipt == live.end())
                continue;
            requireUnchangedFiles(scope, receipt->second, hashes);
            removeReceiptFiles(scope, receipt->second, hashes, others);
            removeReceipt(scope, receipt->first);
            checkpoint("source.receipt." + std::to_string(position));
        }
    }
}

/// Removes the shared package from the source scope when no product there uses it any more.
///
/// before  the scope's receipts before anything was removed
void dropSharedPackage(const Descriptor& descriptor, const PreparedHashes& hashes,
                       const ReceiptInventory& before)
{
    const std::string& scope = descriptor.sourceScope;
    const ReceiptInventory live = pkgutilReceipts(scope, false);
    const Receipt* shared = unusedSharedPackage(before, live, productPackages(descriptor));
    if (shared == nullptr)
        return;
    removeReceiptFiles(scope, *shared, hashes, {});
    removeReceipt(scope, shared->packageId);
}

void clearSource(const Descriptor& descriptor)
{
    const PreparedHashes hashes = snapshotInventory(authoritySnapshot(descriptor, "source"));
    const ReceiptInventory live = pkgutilReceipts(descriptor.sourceScope, false);
    removeProductPackages(descriptor, hashes, live);
    dropSharedPackage(descriptor, hashes, live);
    aggregate(descriptor.sourceScope, productsBeside(live, productPackages(descriptor)));
}

void carryForward(const Descriptor& descriptor, const PreparedState& state)
{
    const ReceiptInventory live = requireExactReceipts(descriptor, true);
    removeStaleFiles(descriptor, live);
    proveInstalledFiles(descriptor);
    for (const Product& product : descriptor.products)
        publishProductRecord(descriptor.targetScope, product.id, product.targetVersion);
    if (descriptor.sourceScope != "none")
        clearSource(descriptor);
    aggregate(descriptor.targetScope, productsBeside(live, {}));
    finishTransaction(descriptor, state);
}

/// Puts the prepared state back after a failure, where the package database still allows it.
void carryBack(const Descriptor& descriptor, const PreparedState& state)
{
    if (!registrationsUnchanged(descriptor))
        throw Invalid("pkgutil receipt registration changed; transaction requires forward recovery");
    restore(descriptor);
    abandonTransaction(descriptor, state);
}

} // namespace

void commit(const Descriptor& descriptor)
{
    const Locks locks(involvedScopes(descriptor));
    removeSecondNames(descriptor);
    if (recoverCompleted(descriptor))
        return;
    validateTransactionDirectory(descriptor);
    const PreparedState state = verifyPrepared(descriptor, transactionRoot(descriptor));
    try {
        carryForward(descriptor, state);
    } catch (const std::exception&) {
        // Once the completed record stands, the transaction is done; the next run finishes the clean-up.
        if (!isRecordedAsCompleted(descriptor, state))
            carryBack(descriptor, state);
        throw;
    }
}

} // namespace maintenance
