#include "receipts/products.h"

#include "fs/existence.h"
#include "fs/scope.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"
#include "validate/text_fields.h"

namespace maintenance {

namespace {

constexpr std::size_t packagesPerProduct = 2;

std::map<std::string, std::size_t> packageCounts(const ReceiptInventory& inventory)
{
    std::map<std::string, std::size_t> counts;
    for (const auto& [packageId, receipt] : inventory) {
        const std::string product = productFromPackage(packageId);
        if (!product.empty())
            ++counts[product];
    }
    return counts;
}

} // namespace

std::string productFromPackage(std::string_view packageId)
{
    if (packageId == commonPackageId)
        return {};
    if (!packageId.starts_with(packageIdPrefix))
        throw Invalid("native receipt package identity is invalid");
    const std::string_view remainder = packageId.substr(packageIdPrefix.size());
    const std::size_t dot = remainder.rfind('.');
    return dot == std::string_view::npos ? std::string() : std::string(remainder.substr(0, dot));
}

std::set<std::string> productsBeside(const ReceiptInventory& inventory, const std::set<std::string>& packages)
{
    std::set<std::string> products;
    for (const auto& [packageId, receipt] : inventory)
        if (!packages.contains(packageId))
            if (std::string product = productFromPackage(packageId); !product.empty())
                products.insert(std::move(product));
    return products;
}

const Receipt* unusedSharedPackage(const ReceiptInventory& before, const ReceiptInventory& after,
                                   const std::set<std::string>& removed)
{
    for (const std::string& packageId : removed)
        if (after.contains(packageId))
            throw Invalid("pkgutil receipt remained registered after forget");
    const auto known = before.find(std::string(commonPackageId));
    const auto shared = after.find(std::string(commonPackageId));
    if (shared == after.end()) {
        if (known != before.end())
            throw Invalid("pkgutil cannot enumerate authoritative package receipts");
        return nullptr;
    }
    if (known != before.end() && known->second.text != shared->second.text)
        throw Invalid("pkgutil receipt evidence is incomplete");
    const bool isUsed = !productsBeside(before, removed).empty() || !packageCounts(after).empty();
    return isUsed ? nullptr : &shared->second;
}

InstalledProducts receiptProducts(const std::string& scope)
{
    const ReceiptInventory inventory = pkgutilReceipts(scope, true);
    InstalledProducts products;
    for (const auto& [product, packages] : packageCounts(inventory)) {
        const auto vst3 = inventory.find(productPackageId(product, "vst3"));
        const auto au = inventory.find(productPackageId(product, "au"));
        const bool consistent = packages == packagesPerProduct && vst3 != inventory.end() &&
                                au != inventory.end() && vst3->second.version == au->second.version;
        if (!consistent)
            throw Invalid("product native receipts are incomplete or inconsistent");
        products.emplace(product, vst3->second.version);
    }
    return products;
}

std::optional<std::string> installed(ProductLookup& lookup, const std::string& scope,
                                     const std::string& product)
{
    auto known = lookup.find(scope);
    if (known == lookup.end())
        known = lookup.emplace(scope, receiptProducts(scope)).first;
    const auto found = known->second.find(product);
    if (found == known->second.end())
        return std::nullopt;
    return found->second;
}

Version version(std::string_view text)
{
    Version value{};
    std::size_t component = 0;
    for (const std::string& piece : split(text, '.'))
        value.at(component++) = std::stoull(piece);
    return value;
}

ReceiptInventory rejectCommonDowngrade(const std::string& scope, const std::string& incoming)
{
    ReceiptInventory inventory = pkgutilReceipts(scope, true);
    const auto common = inventory.find(std::string(commonPackageId));
    if (common != inventory.end() && version(common->second.version) > version(incoming))
        throw Invalid("installed common package revision is newer; common downgrade is refused");
    return inventory;
}

bool scopeAvailableForDuplicateCheck(const std::string& scope)
{
    if (scope == "system")
        return true;
    try {
        const auto home = linkStatus(invokingHome());
        return home && S_ISDIR(home->st_mode);
    } catch (const Invalid&) {
        return false;
    }
}

} // namespace maintenance
