#include "receipts/receipt_removal.h"

#include "fs/scope.h"
#include "fs/settling.h"
#include "receipts/pkgutil.h"
#include "receipts/receipt_inventory.h"
#include "validate/invalid.h"

namespace maintenance {

void removeReceipt(const std::string& scope, const std::string& packageId)
{
    // Files that came back after a power cut, when the receipt that names them is gone, would stay for good.
    settleScope(scope);
    if (pkgutil({"--volume", scopeRoot(scope), "--forget", packageId}).status != 0)
        throw Invalid("pkgutil could not forget the authoritative package receipt");
    if (pkgutilReceipts(scope, false).contains(packageId))
        throw Invalid("pkgutil receipt remained registered after forget");
}

} // namespace maintenance
