#include "kit/cli/payload_source.h"

#include "kit/payload/package_file.h"
#include "kit/payload/staged_tree.h"

namespace maintenance::kit {

Payload readNamedPayload(const PayloadOptions& options, bool showProgress)
{
    return options.packages.empty() ? readStagedTrees(options.roots, showProgress)
                                    : readPackageFiles(options.packages, showProgress);
}

} // namespace maintenance::kit
