#include "kit/text/descriptor_maker.h"

#include "fs/scope.h"
#include "kit/report/failure.h"
#include "receipts/products.h"
#include "validate/identifiers.h"

#include <algorithm>
#include <set>

namespace maintenance::kit {

namespace {

bool isWanted(const WorkOrder& order, const std::string& product)
{
    return order.products.empty() ||
           std::find(order.products.begin(), order.products.end(), product) != order.products.end();
}

/// Requires everything that the order names to be there.
void requireKnown(const WorkOrder& order, const std::set<std::string>& known, const std::string& where)
{
    for (const std::string& product : order.products)
        if (!known.contains(product))
            throw Failure(Findings, "the product " + product + " is not " + where,
                          "name another product, or leave --product out to take all");
    for (const auto& [product, version] : order.recorded)
        if (!known.contains(product) || !isWanted(order, product))
            throw Failure(Findings,
                          "a version is recorded for " + product + ", which the descriptor is not about",
                          "correct --recorded");
}

std::string decisionOf(const WorkOrder& order)
{
    switch (order.kind) {
    case WorkKind::Move:
        return order.decision;
    case WorkKind::Adopt:
        return "adopt";
    case WorkKind::Replace:
        return "replace";
    case WorkKind::Uninstall:
        break;
    }
    return "none";
}

Descriptor emptyDescriptor(const WorkOrder& order, const std::string& sku, const std::string& revision)
{
    const std::string source = order.kind == WorkKind::Move ? startingScope(order) : "none";
    return {order.sku.empty() ? sku : order.sku,
            revision,
            source,
            order.scope,
            decisionOf(order),
            order.id,
            {},
            {},
            {}};
}

/// The version to be recorded for a product; `otherwise` where the order names none.
std::string recordedVersion(const WorkOrder& order, const std::string& product, const std::string& otherwise)
{
    const auto found = order.recorded.find(product);
    return found == order.recorded.end() ? otherwise : found->second;
}

void addPackage(Descriptor& descriptor, const std::string& product, const Receipt& receipt)
{
    std::vector<ReceiptFile> files = receipt.files;
    std::sort(files.begin(), files.end(),
              [](const ReceiptFile& one, const ReceiptFile& other) { return one.path < other.path; });
    for (const ReceiptFile& file : files)
        descriptor.files.push_back({product, receipt.packageId, receipt.version, file.sha256, file.path});
}

const Receipt& requirePackage(const ReceiptInventory& inventory, const std::string& packageId)
{
    const auto found = inventory.find(packageId);
    if (found == inventory.end())
        throw Failure(Findings, "the package " + packageId + " is not installed",
                      "install its product again, or make the descriptor from a plan");
    return found->second;
}

void addInstalledProduct(Descriptor& descriptor, const WorkOrder& order, const ReceiptInventory& inventory,
                         const std::string& product)
{
    const Receipt& vst3 = requirePackage(inventory, productPackageId(product, "vst3"));
    const Receipt& au = requirePackage(inventory, productPackageId(product, "au"));
    if (vst3.version != au.version)
        throw Failure(Findings, "the two packages of " + product + " have different versions",
                      "install the product again");
    descriptor.products.push_back({product, recordedVersion(order, product, vst3.version), vst3.version});
    addPackage(descriptor, product, vst3);
    addPackage(descriptor, product, au);
}

std::set<std::string> productsOf(const ReceiptInventory& inventory)
{
    std::set<std::string> products;
    for (const auto& [packageId, receipt] : inventory)
        if (std::string product = productFromPackage(packageId); !product.empty())
            products.insert(std::move(product));
    return products;
}

} // namespace

std::string startingScope(const WorkOrder& order)
{
    return order.kind == WorkKind::Move ? oppositeScope(order.scope) : order.scope;
}

Descriptor makeDescriptor(const WorkOrder& order, const Plan& plan)
{
    std::set<std::string> known;
    for (const auto& [product, version] : plan.products)
        known.insert(product);
    requireKnown(order, known, "in the plan");
    Descriptor descriptor = emptyDescriptor(order, plan.sku, plan.packageRevision);
    for (const auto& [product, version] : plan.products)
        if (isWanted(order, product))
            descriptor.products.push_back(
                {product, recordedVersion(order, product, order.kind == WorkKind::Uninstall ? version : "-"),
                 version});
    for (const PlanComponent& component : plan.components)
        if (component.product == commonProduct || isWanted(order, component.product))
            for (const auto& [path, sha256] : component.targets)
                descriptor.files.push_back(
                    {component.product, component.packageId, component.version, sha256, path});
    return descriptor;
}

Descriptor makeDescriptor(const WorkOrder& order, const ReceiptInventory& inventory)
{
    const std::set<std::string> known = productsOf(inventory);
    requireKnown(order, known, "installed in the scope " + startingScope(order));
    if (known.empty())
        throw Failure(Findings, "no product is installed in the scope " + startingScope(order),
                      "name the other scope, or make the descriptor from a plan");
    const Receipt& shared = requirePackage(inventory, std::string(commonPackageId));
    Descriptor descriptor = emptyDescriptor(order, order.sku, shared.version);
    for (const std::string& product : known)
        if (isWanted(order, product))
            addInstalledProduct(descriptor, order, inventory, product);
    addPackage(descriptor, std::string(commonProduct), shared);
    return descriptor;
}

} // namespace maintenance::kit
