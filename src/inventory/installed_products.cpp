#include "inventory/installed_products.h"

#include "fs/existence.h"
#include "fs/fixed_directory.h"
#include "fs/publish.h"
#include "fs/removal.h"
#include "receipts/products.h"
#include "validate/invalid.h"

namespace maintenance {

namespace {

constexpr std::string_view indexSchema = "tamarind.pelican.installed-products.v1";

// Identifiers, versions and scope words hold nothing that JSON would want escaped.
std::string indexText(const std::string& scope, const InstalledProducts& products)
{
    std::string entries;
    for (const auto& [product, version] : products) {
        if (!entries.empty())
            entries += ',';
        entries += R"({"productId":")";
        entries += product;
        entries += R"(","scope":")";
        entries += scope;
        entries += R"(","version":")";
        entries += version;
        entries += R"("})";
    }
    return R"({"products":[)" + entries + R"(],"schema":")" + std::string(indexSchema) + "\"}\n";
}

} // namespace

std::filesystem::path installedProductsIndex(const std::string& scope)
{
    return maintenanceRoot(scope).parent_path() / indexName;
}

std::filesystem::path productRecords(const std::string& scope) { return maintenanceRoot(scope) / "Products"; }

void publishProductRecord(const std::string& scope, const std::string& product, const std::string& version)
{
    text(productRecords(scope) / (product + ".record"), "product=" + product + "\nversion=" + version + "\n");
}

void aggregate(const std::string& scope, const std::set<std::string>& known)
{
    const InstalledProducts products = receiptProducts(scope);
    for (const std::string& product : known)
        if (!products.contains(product))
            throw Invalid("pkgutil cannot enumerate authoritative package receipts");
    if (somethingStandsAt(productRecords(scope)))
        removeFixedPath(productRecords(scope));
    openFixedDirectory(scope, std::string(maintenanceDirectory) + "/Products", true, true);
    for (const auto& [product, version] : products)
        publishProductRecord(scope, product, version);
    if (products.empty())
        removeFixedPath(installedProductsIndex(scope));
    else
        text(installedProductsIndex(scope), indexText(scope, products));
}

} // namespace maintenance
