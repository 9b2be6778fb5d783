#include "transaction/prepare.h"

#include "fs/fixed_file.h"
#include "fs/locks.h"
#include "inventory/inspect.h"
#include "receipts/products.h"
#include "receipts/receipt_snapshot.h"
#include "transaction/recovery.h"
#include "transaction/second_names.h"
#include "transaction/snapshot.h"
#include "transaction/transaction_directory.h"
#include "transaction/transaction_scopes.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"

#include <algorithm>
#include <map>

namespace maintenance {

namespace {

/// The shared package's version that the descriptor brings; every descriptor has shared files of one version.
const std::string& incomingCommonVersion(const Descriptor& descriptor)
{
    return std::find_if(descriptor.files.begin(), descriptor.files.end(),
                        [](const File& file) { return file.product == commonProduct; })
        ->version;
}

/// The receipts of each involved scope when the run began.
using FirstInventories = std::map<std::string, ReceiptInventory>;

FirstInventories refuseCommonDowngrades(const Descriptor& descriptor)
{
    const std::string& incoming = incomingCommonVersion(descriptor);
    FirstInventories first;
    first[descriptor.targetScope] = rejectCommonDowngrade(descriptor.targetScope, incoming);
    if (descriptor.sourceScope != "none")
        first[descriptor.sourceScope] = rejectCommonDowngrade(descriptor.sourceScope, incoming);
    return first;
}

bool isAsRecorded(const Product& product, const std::string& installedVersion)
{
    return product.sourceVersion == "-" || installedVersion == product.sourceVersion;
}

void requireUnchangedInstallations(const Descriptor& descriptor, ProductLookup& lookup)
{
    for (const Product& product : descriptor.products) {
        if (const auto target = installed(lookup, descriptor.targetScope, product.id)) {
            if (!isAsRecorded(product, *target))
                throw Invalid("installed version changed before maintenance");
            if (version(*target) > version(product.targetVersion))
                throw Invalid("target-side downgrade is refused");
        }
        if (descriptor.sourceScope == "none")
            continue;
        const auto source = installed(lookup, descriptor.sourceScope, product.id);
        if (!source || !isAsRecorded(product, *source))
            throw Invalid("source installation changed before maintenance");
    }
}

/// Tells whether a snapshot holds a package with the version and paths of its receipt, or neither is there.
bool isAsRegistered(const PackageContents& recorded, const ReceiptInventory& receipts,
                    const std::string& packageId)
{
    const auto receipt = receipts.find(packageId);
    if (receipt == receipts.end())
        return !recorded.contains(packageId);
    return isRecordedRegistration(receipt->second, recorded);
}

/// Tells whether a snapshot holds a product's package in the version that was looked up, or neither is there.
bool isAsLookedUp(const PackageContents& recorded, const InstalledProducts& products,
                  const std::string& packageId)
{
    const auto package = recorded.find(packageId);
    const auto known = products.find(productFromPackage(packageId));
    if (package == recorded.end() || known == products.end())
        return (package == recorded.end()) == (known == products.end());
    return package->second.version == known->second;
}

/// Requires the snapshot of a scope ("target" or "source") to hold what was registered when the run began,
/// and the versions that were looked up. Where the package database has answered otherwise in between, nobody
/// could restore what the snapshot says.
void requireTrueSnapshot(const Descriptor& descriptor, const std::string& side, const ReceiptInventory& first,
                         const InstalledProducts& products)
{
    const PackageContents recorded = snapshotPackages(authoritySnapshot(descriptor, side));
    for (const std::string& packageId : affectedPackages(descriptor)) {
        const bool isTrue = isAsRegistered(recorded, first, packageId) &&
                            (packageId == commonPackageId || isAsLookedUp(recorded, products, packageId));
        if (!isTrue)
            throw Invalid("pkgutil receipt evidence is incomplete");
    }
}

void requireTrueSnapshots(const Descriptor& descriptor, const FirstInventories& first, ProductLookup& lookup)
{
    const auto require = [&](const std::string& side, const std::string& scope) {
        requireTrueSnapshot(descriptor, side, first.at(scope), lookup[scope]);
    };
    require("target", descriptor.targetScope);
    if (descriptor.sourceScope != "none")
        require("source", descriptor.sourceScope);
}

/// An adoption takes over files that are already there, so they must be exactly the descriptor's.
void requireAdoptable(const Descriptor& descriptor)
{
    for (const File& file : descriptor.files) {
        if (file.product == commonProduct)
            continue;
        if (hashOwnedFile({descriptor.targetScope, file.path}) != file.sha256)
            throw Invalid("adopt requires byte-identical bundles");
    }
}

} // namespace

void prepare(const Descriptor& descriptor)
{
    const Locks locks(involvedScopes(descriptor));
    removeSecondNames(descriptor);
    const FirstInventories first = refuseCommonDowngrades(descriptor);
    inspect(descriptor);
    rejectReplay(descriptor);
    if (resumePrepared(descriptor))
        return;
    rejectActiveOrReplay(descriptor);
    openTransaction(descriptor, [&] {
        ProductLookup lookup;
        requireUnchangedInstallations(descriptor, lookup);
        snapshotScopes(descriptor);
        if (descriptor.decision == "adopt")
            requireAdoptable(descriptor);
        requireTrueSnapshots(descriptor, first, lookup);
    });
}

} // namespace maintenance
