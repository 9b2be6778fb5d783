#pragma once

#include "kit/report/finding.h"

#include <map>
#include <string>
#include <vector>

namespace maintenance::kit {

/// A package that the package database knows.
struct RegisteredPackage {
    std::string version;
    /// Relative to the volume, as listed; directories may be among them.
    std::vector<std::string> paths;
};

/// What the package database says of the maker's packages in one scope.
struct Registrations {
    /// Whether it could be asked at all.
    bool known = false;
    /// Whether the tool's own inventory accepts everything that it says.
    bool sound = false;
    /// By identifier, in byte order.
    std::map<std::string, RegisteredPackage> packages;
    /// What the tool would refuse.
    FindingList findings;
};

/// Asks the package database, by the tool's own inventory; where that refuses what it finds, once more
/// package by package, so that the rest can still be told.
Registrations readRegistrations(const std::string& scope);

/// Product to version, of the products that are registered whole and at one version. What is not whole is
/// noted in `findings`.
std::map<std::string, std::string> registeredProducts(const Registrations& registrations,
                                                      const std::string& scope, FindingList& findings);

} // namespace maintenance::kit
