#include "receipts/package_contents.h"

#include "validate/identifiers.h"
#include "validate/invalid.h"

namespace maintenance {

PackageContents packageContents(const Descriptor& descriptor)
{
    PackageContents packages;
    for (const File& file : descriptor.files) {
        PackageContent& package =
            packages.try_emplace(file.packageId, PackageContent{file.version, {}}).first->second;
        if (package.version != file.version || !package.files.emplace(file.path, file.sha256).second)
            throw Invalid("maintenance descriptor package inventory is inconsistent");
    }
    return packages;
}

std::set<std::string> productPackages(const Descriptor& descriptor)
{
    std::set<std::string> packages;
    for (const Product& product : descriptor.products)
        for (const char* kind : {"vst3", "au"})
            packages.insert(productPackageId(product.id, kind));
    return packages;
}

std::set<std::string> affectedPackages(const Descriptor& descriptor)
{
    std::set<std::string> packages;
    for (const File& file : descriptor.files)
        packages.insert(file.packageId);
    return packages;
}

} // namespace maintenance
