#include "kit/text/listed_files.h"

namespace maintenance::kit {

ListedFiles listedFiles(const Plan& plan)
{
    ListedFiles files;
    for (const PlanComponent& component : plan.components)
        for (const auto& [path, sha256] : component.targets)
            files.emplace(path, ListedFile{sha256, component.packageId, component.version});
    return files;
}

ListedFiles listedFiles(const Descriptor& descriptor)
{
    ListedFiles files;
    for (const File& file : descriptor.files)
        files.emplace(file.path, ListedFile{file.sha256, file.packageId, file.version});
    return files;
}

} // namespace maintenance::kit
