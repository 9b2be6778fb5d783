#pragma once

#include "installer/arguments.h"

#include <string>
#include <vector>

/// A component package, unpacked aside.
struct Component {
    std::string identifier;
    std::string version;
    std::string location; ///< install location as the package says it, such as "/" or "/usr/local/bin"
    std::string payload;  ///< directory with the files, or empty if the package has no payload at all
    std::string scripts;  ///< directory with the scripts, or empty if there are none
    std::vector<std::string> paths; ///< of the payload, relative to it, in the order of a listing
};

/// Unpacks the package of `request` into the empty directory `sandbox`. Returns its components: of a product
/// archive in the order in which its Distribution names them, otherwise the package itself.
/// Throws Failure if it is not a package, or is a product archive that does not allow the target.
std::vector<Component> unpackPackage(const Request& request, const std::string& sandbox);
