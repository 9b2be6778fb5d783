#pragma once

#include <string>
#include <string_view>

namespace maintenance::kit {

/// What a component package's PackageInfo says, as far as the kit asks.
struct PackageInfo {
    std::string packageId;
    std::string version;
    /// Where the payload is installed, relative to the volume; "/" when it says nothing.
    std::string location;
    /// The installer may put a bundle where an earlier copy of it lies.
    bool relocatable = false;
    /// The installer leaves a bundle alone that says it is newer.
    bool versionChecked = false;
};

/// Reads the text of a PackageInfo. What it does not say stays empty.
PackageInfo readPackageInfo(std::string_view text);

} // namespace maintenance::kit
