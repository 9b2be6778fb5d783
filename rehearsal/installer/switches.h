#pragma once

#include <optional>
#include <string>
#include <vector>

/// What /etc/installer-stand-in.conf asks to go wrong; by default nothing.
struct Switches {
    std::optional<std::size_t> stopAfter; ///< files that are placed before the installation breaks off
    bool stopAtHalf = false;              ///< the same, after half of all files
    bool receipts = true;                 ///< whether receipts are written at the end
    std::vector<std::string> skipped;     ///< shell patterns of paths that are recorded but not placed

    /// Tells whether `path`, relative to the target, is not to be placed.
    [[nodiscard]] bool skips(const std::string& path) const;
};

/// Reads the control file, if there is one. Throws Failure 99 for a line that it does not know.
Switches readSwitches();
