#pragma once

#include <filesystem>
#include <optional>

namespace maintenance {

/// Returns the path of the running executable as the platform reports it, or nothing when the platform
/// cannot tell. The path may contain links and ".."; the caller makes it canonical.
std::optional<std::filesystem::path> runningExecutablePath();

} // namespace maintenance
