#pragma once

#include "kit/cli/options.h"
#include "kit/payload/payload.h"

namespace maintenance::kit {

/// Reads the payload that the options name. Throws what readStagedTrees and readPackageFiles throw.
Payload readNamedPayload(const PayloadOptions& options, bool showProgress);

} // namespace maintenance::kit
