#include "transaction/snapshot.h"

#include "fs/copy.h"
#include "fs/existence.h"
#include "fs/fixed_directory.h"
#include "fs/fixed_file.h"
#include "fs/publish.h"
#include "inventory/installed_products.h"
#include "receipts/package_contents.h"
#include "receipts/receipt_inventory.h"
#include "receipts/receipt_snapshot.h"
#include "transaction/transaction_scopes.h"

namespace maintenance {

namespace {

/// Snapshots become durable together, by the prepared state that is published after them.
void publishSnapshot(const FixedPlace& place, std::string_view content)
{
    atomicWriteFixed(place, content, Durability::Copy);
}

/// Copies the files of one receipt and then its identity; returns its manifest lines and advances `serial`.
std::string snapshotReceipt(const std::string& scope, const Receipt& receipt, const FixedPlace& snapshot,
                            std::size_t& serial)
{
    std::string lines;
    for (const ReceiptFile& file : receipt.files) {
        const std::string number = std::to_string(serial++);
        copyFixed({scope, file.path}, snapshotFilePlace(snapshot, number), file.sha256);
        lines += file.path + "\t" + file.sha256 + "\t" + number + "\n";
    }
    const std::string number = std::to_string(serial++);
    publishSnapshot(snapshotReceiptPlace(snapshot, number), receipt.text);
    return lines + "receipt\t" + receipt.packageId + "\t" + receipt.version + "\t" + number + "\n";
}

} // namespace

FixedPlace transactionPlace(const Descriptor& descriptor)
{
    return placeInScope(authorityScope(descriptor), transactionRoot(descriptor));
}

FixedPlace targetSnapshot(const Descriptor& descriptor, std::size_t index)
{
    return below(below(transactionPlace(descriptor), "target"), std::to_string(index));
}

FixedPlace targetAbsence(const Descriptor& descriptor, std::size_t index)
{
    return below(below(transactionPlace(descriptor), "target-absent"), std::to_string(index));
}

FixedPlace authoritySnapshot(const Descriptor& descriptor, const std::string& role)
{
    return below(transactionPlace(descriptor), "authority-" + role);
}

FixedPlace metadataSnapshot(const Descriptor& descriptor, const std::string& role)
{
    return below(transactionPlace(descriptor), "metadata-" + role);
}

void snapshotFiles(const Descriptor& descriptor)
{
    for (std::size_t i = 0; i < descriptor.files.size(); ++i) {
        const FixedPlace place{descriptor.targetScope, descriptor.files[i].path};
        if (!somethingStandsAt(absolutePath(place))) {
            publishSnapshot(targetAbsence(descriptor, i), "absent\n");
            continue;
        }
        // For its messages, which say more of a wrong path than the copy's do.
        safeFile(place);
        copyFixed(place, targetSnapshot(descriptor, i), std::nullopt);
    }
}

void snapshotAuthority(const std::string& scope, const FixedPlace& snapshot,
                       const std::set<std::string>& packages)
{
    const FixedPlace files = snapshotFilesPlace(snapshot);
    openFixedDirectory(files.scope, files.relative, true, true);
    std::string manifest;
    std::size_t serial = 0;
    for (const auto& [packageId, receipt] : pkgutilReceipts(scope, true))
        if (packages.contains(packageId))
            manifest += snapshotReceipt(scope, receipt, snapshot, serial);
    publishSnapshot(snapshotManifestPlace(snapshot), manifest);
}

void snapshotMetadata(const std::string& scope, const FixedPlace& snapshot)
{
    copyTree(placeInScope(scope, productRecords(scope)), below(snapshot, "Products"));
    const std::filesystem::path index = installedProductsIndex(scope);
    if (somethingStandsAt(index))
        copyRegular(index, absolutePath(below(snapshot, indexName)), std::nullopt);
}

void snapshotScopes(const Descriptor& descriptor)
{
    const std::set<std::string> packages = affectedPackages(descriptor);
    snapshotFiles(descriptor);
    snapshotAuthority(descriptor.targetScope, authoritySnapshot(descriptor, "target"), packages);
    snapshotMetadata(descriptor.targetScope, metadataSnapshot(descriptor, "target"));
    if (descriptor.sourceScope == "none")
        return;
    snapshotAuthority(descriptor.sourceScope, authoritySnapshot(descriptor, "source"), packages);
    snapshotMetadata(descriptor.sourceScope, metadataSnapshot(descriptor, "source"));
}

} // namespace maintenance
