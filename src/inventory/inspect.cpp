#include "inventory/inspect.h"

#include "fs/existence.h"
#include "receipts/products.h"
#include "validate/invalid.h"

#include <algorithm>

namespace maintenance {

namespace {

/// What the products looked at so far call for.
struct Findings {
    bool upgrade = false;
    bool repair = false;
    bool moveRequired = false;
};

const char* statusWord(const Findings& findings)
{
    if (findings.upgrade)
        return "upgrade";
    if (findings.repair)
        return "repair";
    return findings.moveRequired ? "move-required" : "clean";
}

/// Tells whether something stands in the place of one of the product's files.
bool somethingIsInTheWay(const Descriptor& descriptor, const Product& product)
{
    const std::filesystem::path root = scopeRoot(descriptor.targetScope);
    return std::any_of(descriptor.files.begin(), descriptor.files.end(), [&](const File& file) {
        return file.product == product.id && somethingStandsAt(root / file.path);
    });
}

/// Refuses to overwrite what somebody installed without a package, unless the descriptor says how.
void refuseManualCollision(const Descriptor& descriptor, const Product& product)
{
    // Looked for in any case: a place that cannot be examined is an error whatever was decided.
    if (somethingIsInTheWay(descriptor, product) && descriptor.decision == "none")
        throw Invalid("manual installation collision requires adopt or replace");
}

void inspectProduct(const Descriptor& descriptor, const Product& product, ProductLookup& lookup,
                    Findings& findings)
{
    const std::string opposite = oppositeScope(descriptor.targetScope);
    const auto here = installed(lookup, descriptor.targetScope, product.id);
    const auto there =
        scopeAvailableForDuplicateCheck(opposite) ? installed(lookup, opposite, product.id) : std::nullopt;
    if (here && version(*here) > version(product.targetVersion))
        throw Invalid("target-side downgrade is refused");
    if (there && descriptor.sourceScope != opposite)
        throw Invalid("product exists in the opposite scope");
    if (there)
        findings.moveRequired = true;
    if (!here)
        refuseManualCollision(descriptor, product);
    else if (version(*here) == version(product.targetVersion))
        findings.repair = true;
    else
        findings.upgrade = true;
}

} // namespace

std::string inspect(const Descriptor& descriptor)
{
    ProductLookup lookup;
    Findings findings;
    for (const Product& product : descriptor.products)
        inspectProduct(descriptor, product, lookup, findings);
    return std::string("{\"status\":\"") + statusWord(findings) + "\"}\n";
}

} // namespace maintenance
