#include "receipts/receipt_removal.h"

#include "fs/fixed_directory.h"
#include "platform/durable_sync.h"
#include "receipts/pkgutil.h"
#include "receipts/receipt_inventory.h"
#include "validate/invalid.h"

#include <stdexcept>

namespace maintenance {

namespace {

/// Brings every removal so far to the storage medium. Files that come back after a power cut, when the
/// receipt that names them is gone, would stay for good.
void settleRemovals(const std::string& scope)
{
    const OwnedFd library = openFixedDirectory(scope, "Library", false, false);
    if (!synchronize(library.get(), Durability::Record))
        throw std::runtime_error("cannot synchronize fixed metadata directory");
}

} // namespace

void removeReceipt(const std::string& scope, const std::string& packageId)
{
    settleRemovals(scope);
    if (pkgutil({"--volume", scopeRoot(scope), "--forget", packageId}).status != 0)
        throw Invalid("pkgutil could not forget the authoritative package receipt");
    if (pkgutilReceipts(scope, false).contains(packageId))
        throw Invalid("pkgutil receipt remained registered after forget");
}

} // namespace maintenance
