#pragma once

#include "plan/descriptor.h"

#include <map>
#include <set>
#include <string>

namespace maintenance {

/// What one package holds: its version, and path to digest text.
struct PackageContent {
    std::string version;
    std::map<std::string, std::string> files;
};

/// Packages by identifier, in ascending byte order.
using PackageContents = std::map<std::string, PackageContent>;

/// Groups a descriptor's files by package.
/// Throws Invalid "maintenance descriptor package inventory is inconsistent" when one package has two
/// versions or lists a path twice.
PackageContents packageContents(const Descriptor& descriptor);

/// Returns the identifiers of both packages of each of the descriptor's products.
std::set<std::string> productPackages(const Descriptor& descriptor);

/// Returns the identifiers of the packages that the descriptor's files name.
std::set<std::string> affectedPackages(const Descriptor& descriptor);

} // namespace maintenance
