#pragma once

#include <optional>
#include <string>
#include <vector>

namespace maintenance {

/// The most levels of directories that a walk enters. The tool's own trees have five at the most; an account
/// that nests thousands must not be able to exhaust the stack of a root process.
inline constexpr int deepestTree = 64;
/// The most levels of a tree that is copied. A copy lies a few levels deeper than its original, in a
/// transaction's directory, which must still be one that can be walked and removed.
inline constexpr int deepestCopiedTree = 32;

/// Returns the names in the open directory `directory` (borrowed), without "." and "..", in the order in
/// which the file system lists them; nothing when it cannot be listed.
std::optional<std::vector<std::string>> directoryEntries(int directory);

} // namespace maintenance
