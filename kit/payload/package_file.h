#pragma once

#include "kit/payload/payload.h"

#include <string>
#include <vector>

namespace maintenance::kit {

/// Reads built packages: flat component packages, and product archives with component packages in them.
/// Nothing is unpacked to disk; every file that passes the rules is hashed as it comes out of the archive.
/// Packages without a payload are passed over, since they leave no receipt.
///
/// files         the archives; together they are one payload
/// showProgress  draw a bar while reading
/// throws        Failure (NoInput) when a file cannot be read; Failure (Findings) when it is no flat package
/// or
///               is damaged
Payload readPackageFiles(const std::vector<std::string>& files, bool showProgress);

} // namespace maintenance::kit
