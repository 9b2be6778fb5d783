#pragma once

#include "plan/descriptor.h"
#include "receipts/receipt_inventory.h"

namespace maintenance {

/// Requires the live receipts of the descriptor's target scope to hold exactly the files and hashes that the
/// descriptor lists for each of its packages. Other packages are not examined.
///
/// includeCommon  whether the shared package is required too
/// returns        the inventory that was compared
/// throws         Invalid "maintenance descriptor package inventory is inconsistent"
///                Invalid "exact native package receipt is missing or has the wrong version"
///                Invalid "native package receipt inventory is not exact"
///                what pkgutilReceipts throws
ReceiptInventory requireExactReceipts(const Descriptor& descriptor, bool includeCommon);

} // namespace maintenance
