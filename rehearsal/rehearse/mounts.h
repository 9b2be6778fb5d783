#pragma once

#include "rehearse/options.h"

#include <string>
#include <vector>

/// One directory of the machine as the root shows it: what is written lands in `upper`.
struct Layer {
    std::string path; ///< of the directory, on the machine as well as inside the root
    std::string
        upper; ///< directory in memory that is laid over it; changes must be made before it is mounted
};

/// The root while it is being built. All paths are those of the machine's view, until the root is entered.
struct Root {
    std::string top;           ///< where "/" of the root is being built
    std::vector<Layer> layers; ///< parents before what lies in them
    bool userNamespace;        ///< made without the machine's root rights
};

/// Makes the memory file system, "/" of the root and a layer for each directory of the machine, not yet laid
/// over it, in a mount namespace that belongs to this process alone. The umask must be 0. Throws Failure 77.
Root prepareRoot(const Options& options, bool userNamespace);

/// Returns the place in memory where what belongs to `path` inside the root must be written: in a layer if
/// one covers it, otherwise in the root itself. Follows the machine's symbolic links above the last component
/// and makes missing directories, with the owner and mode they have on the machine, or else 0:0 and 0755.
/// Throws Failure 125.
std::string placeFor(const Root& root, const std::string& path);

/// Lays the layers over the machine's directories, adds /dev, /proc, /sys and the shares, and makes the root
/// "/" of this process. Nothing of the machine's own mounts is left visible. Throws Failure 77.
void enterRoot(const Root& root, const Options& options);
