#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace maintenance {

/// What one run of the package receipt command gave.
struct PkgutilResult {
    /// Exit code 0 to 255; 70 when the command did not exit normally or its output could not be read whole.
    std::int32_t status;
    /// Its standard output and standard error, in the order in which the bytes arrived, unchanged.
    std::string output;
};

/// Runs "/usr/sbin/pkgutil" with `arguments` (without the program name), no shell and no search path, and
/// waits for it. A status other than 0 is not an error here.
///
/// throws  Invalid "cannot create fixed pkgutil output pipe"
///         Invalid "fixed /usr/sbin/pkgutil is unavailable"
///         Invalid "cannot wait for fixed pkgutil"
PkgutilResult pkgutil(const std::vector<std::string>& arguments);

} // namespace maintenance
