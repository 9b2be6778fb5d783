#include "receipts/exact_receipts.h"

#include "receipts/package_contents.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"

namespace maintenance {

namespace {

void requireExactReceipt(const ReceiptInventory& inventory, const std::string& packageId,
                         const PackageContent& expected)
{
    const auto receipt = inventory.find(packageId);
    if (receipt == inventory.end() || receipt->second.version != expected.version)
        throw Invalid("exact native package receipt is missing or has the wrong version");
    std::map<std::string, std::string> files;
    for (const ReceiptFile& file : receipt->second.files)
        files.emplace(file.path, file.sha256);
    if (files != expected.files)
        throw Invalid("native package receipt inventory is not exact");
}

} // namespace

ReceiptInventory requireExactReceipts(const Descriptor& descriptor, bool includeCommon)
{
    ReceiptInventory inventory = pkgutilReceipts(descriptor.targetScope, true);
    for (const auto& [packageId, expected] : packageContents(descriptor))
        if (includeCommon || packageId != commonPackageId)
            requireExactReceipt(inventory, packageId, expected);
    return inventory;
}

} // namespace maintenance
