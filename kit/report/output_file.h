#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace maintenance::kit {

/// Writes a file atomically: beside its place under a temporary name, synchronised, then renamed over it. It
/// has mode 0644 whatever the umask, since the privileged tool refuses what its group may write. A run that
/// fails leaves what was there and no temporary file.
///
/// path    where the file is to stand; something else than a regular file there is left alone
/// throws  Failure (NotCreated)
void writeOutputFile(const std::string& path, std::string_view content);

/// Refuses an output that is one of the inputs, under whichever name.
void requireOtherThan(const std::vector<std::string>& inputs, const std::string& output);

} // namespace maintenance::kit
