#pragma once

#include <string>

namespace maintenance {

/// Forgets a package's receipt in the scope and proves from a fresh inventory that it is gone. Touches no
/// installed file; first makes sure that files that were removed before stay so whatever happens.
///
/// packageId  has passed safePackageId
/// throws     Invalid "pkgutil could not forget the authoritative package receipt"
///            Invalid "pkgutil receipt remained registered after forget"
///            what settleScope, pkgutil and pkgutilReceipts throw
void removeReceipt(const std::string& scope, const std::string& packageId);

} // namespace maintenance
