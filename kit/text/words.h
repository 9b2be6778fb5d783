#pragma once

#include <string>
#include <string_view>

namespace maintenance::kit {

// The rules of the formats, in words.

inline constexpr const char* idRule =
    "an identifier has 1 to 128 lower-case letters, digits and hyphens, and no hyphen at either end";
inline constexpr const char* versionRule =
    "a version has one to four numbers without leading zeros, separated by dots";
inline constexpr const char* revisionRule = "a revision is a number of 1 to 9 digits without leading zero";
inline constexpr const char* digestRule = "a SHA-256 has 64 digits, 0 to 9 and a to f in lower case";
inline constexpr const char* packageIdRule =
    "a package is called com.tamarindpelican.pkg.common, or com.tamarindpelican.pkg. followed by a product's "
    "identifier and .vst3 or .au";

/// What the tool says about a path that a plan or a descriptor must not list, in its words and in ours.
struct PathRefusal {
    /// The tool's message; empty when the path is allowed.
    std::string message;
    /// The rule, with the exact place of what offends it.
    std::string rule;
    /// What to do next.
    std::string advice;
};

/// Holds the path of an installed file against the tool's rules for owned paths.
PathRefusal refusalOfOwnedPath(std::string_view path);

/// Holds any path of a package, also that of a directory, against the tool's rules for relative paths.
PathRefusal refusalOfRelativePath(std::string_view path);

/// Returns the highest part of `path` that lies outside all destinations: of a file in a foreign directory
/// that directory, of a file in a foreign bundle that bundle, and otherwise the path itself.
std::string outermostForeign(std::string_view path);

/// Tells whether a version holds a number beyond 64 bits, which the tool reads but cannot compare.
bool hasHugeNumber(std::string_view version);

} // namespace maintenance::kit
