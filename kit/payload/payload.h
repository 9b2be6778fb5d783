#pragma once

#include "kit/report/finding.h"

#include <string>
#include <vector>

namespace maintenance::kit {

/// One file that an installation places.
struct PayloadFile {
    /// Relative to the scope root.
    std::string path;
    /// Digest text of the content.
    std::string sha256;
    /// The package that brings it; empty when it comes from a tree.
    std::string packageId;
};

/// One built component package that has a payload.
struct PayloadPackage {
    std::string packageId;
    std::string version;
    /// Where it was found, for messages.
    std::string place;
};

/// Everything that an installation places, as far as it may be placed; what may not is in the findings.
struct Payload {
    /// In the order in which they were found; empty when the payload comes from trees.
    std::vector<PayloadPackage> packages;
    /// In byte order of their paths.
    std::vector<PayloadFile> files;
    FindingList findings;
};

} // namespace maintenance::kit
