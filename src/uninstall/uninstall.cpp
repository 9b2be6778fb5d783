#include "uninstall/uninstall.h"

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
#include "transaction/second_names.h"
#include "transaction/snapshot.h"
#include "transaction/transaction_directory.h"
#include "transaction/transaction_scopes.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"

#include <map>
#include <set>

namespace maintenance {

namespace {

[[noreturn]] void refuseMismatch()
{
    throw Invalid("uninstall descriptor does not match the installed product");
}

/// Path to the digest that the file had when the transaction was prepared.
using PreparedHashes = std::map<std::string, std::string>;

void requireBothPackages(const PackageContents& packages, const Product& product)
{
    for (const char* kind : {"vst3", "au"})
        if (!packages.contains(productPackageId(product.id, kind)))
            refuseMismatch();
}

/// Proves from the live receipts that the descriptor describes exactly what is installed; returns them.
ReceiptInventory proveInstallation(const Descriptor& descriptor)
{
    const PackageContents packages = packageContents(descriptor);
    ProductLookup lookup;
    for (const Product& product : descriptor.products) {
        if (installed(lookup, descriptor.targetScope, product.id) != product.targetVersion)
            refuseMismatch();
        requireBothPackages(packages, product);
    }
    return requireExactReceipts(descriptor, false);
}

bool isSameContent(const PackageContent& one, const PackageContent& other)
{
    return one.version == other.version && one.files == other.files;
}

PackageContents recordedPackages(const Descriptor& descriptor)
{
    return snapshotPackages(authoritySnapshot(descriptor, "target"));
}

/// Proves from the snapshot what proveInstallation proves live. A transaction that was prepared for something
/// else is never carried out as an uninstallation.
void proveSnapshot(const Descriptor& descriptor)
{
    const PackageContents recorded = recordedPackages(descriptor);
    const PackageContents described = packageContents(descriptor);
    for (const Product& product : descriptor.products)
        requireBothPackages(described, product);
    for (const auto& [packageId, content] : described) {
        const auto package = recorded.find(packageId);
        if (packageId != commonPackageId &&
            (package == recorded.end() || !isSameContent(package->second, content)))
            refuseMismatch();
    }
}

/// Requires every package that is to be removed to be registered as the snapshot recorded it. Only a resumed
/// uninstallation may find some of them registered no longer.
void proveRegistrations(const Descriptor& descriptor, const ReceiptInventory& live, bool resumed)
{
    const PackageContents recorded = recordedPackages(descriptor);
    for (const std::string& packageId : affectedPackages(descriptor)) {
        const auto receipt = live.find(packageId);
        const bool mayBeGone = resumed || packageId == commonPackageId;
        if (receipt == live.end() && !mayBeGone)
            refuseMismatch();
        if (receipt != live.end() && !isRecordedRegistration(receipt->second, recorded))
            refuseMismatch();
    }
}

PreparedState beginUninstallation(const Descriptor& descriptor)
{
    rejectActiveOrReplay(descriptor);
    return openTransaction(descriptor, [&] {
        snapshotScopes(descriptor);
        const ReceiptInventory live = proveInstallation(descriptor);
        proveSnapshot(descriptor);
        proveRegistrations(descriptor, live, false);
    });
}

/// Removes one file of a receipt: the snapshot must vouch for its content. A file that is gone was removed by
/// an earlier run; one that the snapshot does not know stays.
void removeVouchedFile(const FixedPlace& place, const PreparedHashes& hashes)
{
    const auto hash = hashes.find(place.relative);
    if (hash == hashes.end() || !somethingStandsAt(absolutePath(place)))
        return;
    if (hashOwnedFile(place) != hash->second)
        throw Invalid("receipt-owned file changed; refusing uninstall");
    removeOwned(place, hash->second, Links::Refuse);
}

/// Removes packages of one scope, counting the files that it has come past.
struct PackageRemoval {
    std::string scope;
    PreparedHashes hashes;
    /// Paths that other packages own too.
    std::set<std::string> keep;
    std::size_t serial = 0;
};

void removePackage(PackageRemoval& removal, const Receipt& receipt)
{
    for (const ReceiptFile& file : receipt.files) {
        if (!removal.keep.contains(file.path))
            removeVouchedFile({removal.scope, file.path}, removal.hashes);
        checkpoint("uninstall." + std::to_string(removal.serial++));
    }
    removeReceipt(removal.scope, receipt.packageId);
    checkpoint("uninstall.receipt." + receipt.packageId);
}

void removeProducts(const Descriptor& descriptor, PackageRemoval& removal, const ReceiptInventory& live)
{
    for (const Product& product : descriptor.products)
        for (const char* kind : {"vst3", "au"}) {
            const auto receipt = live.find(productPackageId(product.id, kind));
            if (receipt != live.end())
                removePackage(removal, receipt->second);
        }
}

/// Removes the shared package when no product of the maker is left in the scope.
///
/// before  the receipts before anything was removed
void removeSharedPackage(const Descriptor& descriptor, PackageRemoval& removal,
                         const ReceiptInventory& before)
{
    const ReceiptInventory live = pkgutilReceipts(removal.scope, false);
    const Receipt* shared = unusedSharedPackage(before, live, productPackages(descriptor));
    if (shared == nullptr)
        return;
    removal.keep.clear();
    removePackage(removal, *shared);
}

} // namespace

void uninstall(const Descriptor& descriptor)
{
    const std::string& scope = descriptor.targetScope;
    const Locks locks(involvedScopes(descriptor));
    removeSecondNames(descriptor);
    if (recoverCompleted(descriptor))
        return;
    const bool resumed = resumePrepared(descriptor);
    const PreparedState state =
        resumed ? verifyPrepared(descriptor, transactionRoot(descriptor)) : beginUninstallation(descriptor);

    const ReceiptInventory live = pkgutilReceipts(scope, false);
    if (resumed)
        proveSnapshot(descriptor);
    proveRegistrations(descriptor, live, resumed);
    PackageRemoval removal{scope, snapshotInventory(authoritySnapshot(descriptor, "target")),
                           pathsOfOthers(live, productPackages(descriptor))};
    removeProducts(descriptor, removal, live);
    removeSharedPackage(descriptor, removal, live);
    aggregate(scope, productsBeside(live, productPackages(descriptor)));
    finishTransaction(descriptor, state);
}

} // namespace maintenance
