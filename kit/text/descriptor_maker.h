#pragma once

#include "kit/report/finding.h"
#include "plan/descriptor.h"
#include "plan/plan.h"
#include "receipts/receipt_inventory.h"

#include <map>
#include <string>
#include <vector>

namespace maintenance::kit {

/// What a descriptor is to bring about.
enum class WorkKind { Move, Adopt, Replace, Uninstall };

/// What the maker of a descriptor decides.
struct WorkOrder {
    WorkKind kind = WorkKind::Move;
    /// "user" or "system": where the products are afterwards, or where they are uninstalled.
    std::string scope;
    std::string id;
    std::string sku;
    /// "none", "adopt" or "replace"; counts for a move only, the other kinds decide themselves.
    std::string decision = "none";
    /// The products that it is about; empty means all.
    std::vector<std::string> products;
    /// Product to the version that must be installed when the work begins; what is not named may have any.
    std::map<std::string, std::string> recorded;
};

/// Returns the scope whose installation the work starts from: the opposite one for a move, else its own.
std::string startingScope(const WorkOrder& order);

/// Makes a descriptor of a plan. Throws Failure (Findings) for a product that the plan does not have.
Descriptor makeDescriptor(const WorkOrder& order, const Plan& plan);

/// Makes a descriptor of the installed packages of the starting scope, taken with verification.
///
/// throws  Failure (Findings) for a product that is not installed whole, or without the shared package
Descriptor makeDescriptor(const WorkOrder& order, const ReceiptInventory& inventory);

} // namespace maintenance::kit
