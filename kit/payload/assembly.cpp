#include "kit/payload/assembly.h"

#include "kit/report/printable.h"
#include "validate/identifiers.h"
#include "validate/owned_path.h"

#include <algorithm>
#include <map>
#include <set>

namespace maintenance::kit {

namespace {

/// The components of the plan by package identifier, and what was noted on the way.
struct Assembly {
    const ProductList& list;
    Plan plan;
    std::map<std::string, std::size_t> components;
    /// Bundle name, without its suffix, to product.
    std::map<std::string, std::string> owners;
    std::set<std::string> reported;
    FindingList& findings;
};

void note(Assembly& assembly, const std::string& place, std::string rule, std::string advice)
{
    if (assembly.reported.insert(place + "\n" + rule).second)
        assembly.findings.push_back(
            {Finding::Severity::Error, place, 0, {}, std::move(rule), {}, std::move(advice)});
}

void addComponent(Assembly& assembly, const std::string& product, const std::string& packageId,
                  const std::string& version)
{
    auto& components = assembly.plan.components;
    assembly.components.emplace(packageId, components.size());
    components.push_back({components.size(), product, packageId, version, {}});
}

void layOut(Assembly& assembly)
{
    assembly.plan.sku = assembly.list.sku;
    assembly.plan.packageRevision = assembly.list.packageRevision;
    for (const ListedProduct& product : assembly.list.products) {
        assembly.plan.products.emplace_back(product.id, product.version);
        for (const char* kind : {"vst3", "au"})
            addComponent(assembly, product.id, productPackageId(product.id, kind), product.version);
        for (const std::string& bundle : product.bundles)
            assembly.owners.emplace(bundle, product.id);
    }
    addComponent(assembly, std::string(commonProduct), std::string(commonPackageId),
                 assembly.list.packageRevision);
}

bool isExecutable(const std::string& path)
{
    return path == maintenanceExecutable || path == updaterExecutable;
}

const char* kindOf(const std::string& path) { return path.starts_with(vst3Destination) ? "vst3" : "au"; }

/// The bundle that holds a file: its path, and its name without suffix.
struct Bundle {
    std::string path;
    std::string name;
};

Bundle bundleOf(const std::string& path)
{
    const bool isVst3 = path.starts_with(vst3Destination);
    const std::size_t start = (isVst3 ? vst3Destination : componentsDestination).size();
    const std::size_t suffix = std::string_view(isVst3 ? ".vst3" : ".component").size();
    const std::size_t end = path.find('/', start);
    return {path.substr(0, end), path.substr(start, end - start - suffix)};
}

/// The package that a file of a tree belongs to; empty, with a note, when no product has its bundle.
std::string packageOfTreeFile(Assembly& assembly, const std::string& path)
{
    if (isExecutable(path))
        return std::string(commonPackageId);
    const Bundle bundle = bundleOf(path);
    const auto owner = assembly.owners.find(bundle.name);
    if (owner != assembly.owners.end())
        return productPackageId(owner->second, kindOf(path));
    note(assembly, bundle.path, "no product of the list has this bundle",
         "name it among the \"bundles\" of its product, or take it out of the tree");
    return {};
}

/// Requires a file of a package to be where the package's kind has its files, in a bundle of its product.
void requireRightPackage(Assembly& assembly, const PayloadFile& file, const PlanComponent& component)
{
    const bool isCommon = component.packageId == commonPackageId;
    if (isCommon != isExecutable(file.path) ||
        (!isCommon && productPackageId(component.product, kindOf(file.path)) != component.packageId)) {
        note(assembly, file.path, component.packageId + " may not bring this file",
             "put VST3 bundles into the .vst3 package, components into the .au package, the two executables "
             "into "
             "the shared one");
        return;
    }
    if (isCommon)
        return;
    const Bundle bundle = bundleOf(file.path);
    const auto owner = assembly.owners.find(bundle.name);
    if (owner != assembly.owners.end() && owner->second != component.product)
        note(assembly, bundle.path, component.packageId + " brings a bundle of the product " + owner->second,
             "put it into that product's package");
}

void takeFile(Assembly& assembly, const PayloadFile& file)
{
    const std::string packageId =
        file.packageId.empty() ? packageOfTreeFile(assembly, file.path) : file.packageId;
    const auto position = assembly.components.find(packageId);
    if (position == assembly.components.end())
        return;
    PlanComponent& component = assembly.plan.components[position->second];
    if (!file.packageId.empty())
        requireRightPackage(assembly, file, component);
    component.targets.emplace_back(file.path, file.sha256);
}

void requirePackages(Assembly& assembly, const Payload& payload)
{
    std::set<std::string> seen;
    for (const PayloadPackage& package : payload.packages) {
        const auto position = assembly.components.find(package.packageId);
        if (position == assembly.components.end()) {
            note(assembly, package.place,
                 "no product of the list has the package " + printable(package.packageId),
                 "add its product to the list, or leave the package out");
            continue;
        }
        if (!seen.insert(package.packageId).second)
            note(assembly, package.place, "the package " + package.packageId + " is there twice",
                 "name it once");
        const std::string& version = assembly.plan.components[position->second].version;
        if (package.version != version)
            note(assembly, package.place,
                 "the package has version \"" + printable(package.version) + "\", the list says \"" +
                     version + "\"",
                 "build the package with that version, or change the list");
    }
}

void requireFilledComponents(Assembly& assembly)
{
    for (const PlanComponent& component : assembly.plan.components) {
        if (component.packageId == commonPackageId) {
            for (const std::string_view path : {maintenanceExecutable, updaterExecutable})
                if (std::none_of(component.targets.begin(), component.targets.end(),
                                 [&](const auto& target) { return target.first == path; }))
                    note(assembly, std::string(path),
                         "the shared package must bring this file, and it is not there",
                         "put the executable into the tree or package");
        } else if (component.targets.empty()) {
            note(assembly, component.packageId, "the package has no file",
                 "every product is installed as a VST3 bundle and as an Audio Unit component; stage both, "
                 "and name "
                 "their bundles in the list");
        }
    }
}

/// A bundle that is listed but not there is a slip of the pen, in the list or in the tree.
void requireListedBundles(Assembly& assembly, const Payload& payload)
{
    std::set<std::string> present;
    for (const PayloadFile& file : payload.files)
        if (!isExecutable(file.path))
            present.insert(bundleOf(file.path).name);
    for (const auto& [bundle, product] : assembly.owners)
        if (!present.contains(bundle))
            note(assembly, bundle, "the product " + product + " lists this bundle, and it has no file",
                 "correct the list, or put the bundle into the tree or package");
}

} // namespace

Plan assemblePlan(const ProductList& list, const Payload& payload, FindingList& findings)
{
    Assembly assembly{list, {}, {}, {}, {}, findings};
    layOut(assembly);
    requirePackages(assembly, payload);
    for (const PayloadFile& file : payload.files)
        takeFile(assembly, file);
    // What a refused file leaves open is not another mistake.
    if (!hasErrors(payload.findings)) {
        requireFilledComponents(assembly);
        requireListedBundles(assembly, payload);
    }
    return std::move(assembly.plan);
}

} // namespace maintenance::kit
