#pragma once

#include <optional>
#include <string>
#include <vector>

namespace maintenance {

/// Returns the names in the open directory `directory` (borrowed), without "." and "..", in the order in
/// which the file system lists them; nothing when it cannot be listed.
std::optional<std::vector<std::string>> directoryEntries(int directory);

} // namespace maintenance
