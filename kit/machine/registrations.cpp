#include "kit/machine/registrations.h"

#include "fs/scope.h"
#include "kit/report/printable.h"
#include "receipts/pkgutil.h"
#include "receipts/products.h"
#include "receipts/receipt_inventory.h"
#include "validate/identifiers.h"
#include "validate/invalid.h"
#include "validate/text_fields.h"

#include <optional>
#include <set>

namespace maintenance::kit {

namespace {

Finding refusal(const std::string& scope, const std::string& rule, const std::string& message)
{
    return {Finding::Severity::Error,
            "packages of the " + scope + " scope",
            0,
            {},
            rule,
            message,
            "install the packages of the product again"};
}

/// The lines of one answer of the package database; nothing when it failed.
std::optional<std::vector<std::string>> ask(const std::string& volume,
                                            const std::vector<std::string>& request)
{
    std::vector<std::string> arguments = {"--volume", volume};
    arguments.insert(arguments.end(), request.begin(), request.end());
    const PkgutilResult result = pkgutil(arguments);
    if (result.status != 0)
        return std::nullopt;
    std::vector<std::string> lines;
    for (const std::string_view line : splitLines(result.output))
        if (!line.empty())
            lines.emplace_back(line);
    return lines;
}

RegisteredPackage askPackage(const std::string& volume, const std::string& packageId)
{
    constexpr std::string_view versionKey = "version: ";
    RegisteredPackage package;
    for (const std::string& line :
         ask(volume, {"--pkg-info", packageId}).value_or(std::vector<std::string>()))
        if (line.starts_with(versionKey))
            package.version = line.substr(versionKey.size());
    package.paths = ask(volume, {"--files", packageId}).value_or(std::vector<std::string>());
    return package;
}

/// Takes what can be had without the tool's strictness.
void askLeniently(Registrations& registrations, const std::string& scope)
{
    const std::string volume = scopeRoot(scope);
    const auto listed = ask(volume, {"--pkgs"});
    if (!listed)
        return;
    for (const std::string& packageId : *listed)
        if (safePackageId(packageId))
            registrations.packages.emplace(packageId, askPackage(volume, packageId));
    registrations.known = true;
}

void askStrictly(Registrations& registrations, const std::string& scope)
{
    for (const auto& [packageId, receipt] : pkgutilReceipts(scope, false)) {
        RegisteredPackage package{receipt.version, {}};
        for (const ReceiptFile& file : receipt.files)
            package.paths.push_back(file.path);
        registrations.packages.emplace(packageId, std::move(package));
    }
    registrations.known = registrations.sound = true;
}

std::string versionAt(const Registrations& registrations, const std::string& packageId)
{
    const auto found = registrations.packages.find(packageId);
    return found == registrations.packages.end() ? std::string() : found->second.version;
}

} // namespace

Registrations readRegistrations(const std::string& scope)
{
    Registrations registrations;
    try {
        askStrictly(registrations, scope);
        return registrations;
    } catch (const std::exception& error) {
        registrations.findings.push_back(
            refusal(scope, "the tool refuses what the package database says", error.what()));
    }
    try {
        askLeniently(registrations, scope);
    } catch (const std::exception&) {
        // Said already: the strict question failed in the same way.
        registrations.packages.clear();
    }
    return registrations;
}

std::map<std::string, std::string> registeredProducts(const Registrations& registrations,
                                                      const std::string& scope, FindingList& findings)
{
    std::set<std::string> products;
    for (const auto& [packageId, package] : registrations.packages)
        if (std::string product = productFromPackage(packageId); !product.empty())
            products.insert(std::move(product));
    std::map<std::string, std::string> whole;
    for (const std::string& product : products) {
        const std::string vst3 = versionAt(registrations, productPackageId(product, "vst3"));
        const std::string au = versionAt(registrations, productPackageId(product, "au"));
        if (vst3 == au && !vst3.empty())
            whole.emplace(product, vst3);
        else
            findings.push_back(
                refusal(scope,
                        "the product " + product + " is not registered whole: its VST3 package is " +
                            (vst3.empty() ? "missing" : "at " + printable(vst3)) +
                            ", its Audio Unit package is " + (au.empty() ? "missing" : "at " + printable(au)),
                        "product native receipts are incomplete or inconsistent"));
    }
    return whole;
}

} // namespace maintenance::kit
