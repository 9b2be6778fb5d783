#pragma once

#include "plan/descriptor.h"
#include "plan/plan.h"

#include <map>
#include <string>

namespace maintenance::kit {

/// What a plan or descriptor says of one file.
struct ListedFile {
    std::string sha256;
    std::string packageId;
    std::string version;
};

/// Path to what is listed for it, in byte order.
using ListedFiles = std::map<std::string, ListedFile>;

ListedFiles listedFiles(const Plan& plan);
ListedFiles listedFiles(const Descriptor& descriptor);

} // namespace maintenance::kit
