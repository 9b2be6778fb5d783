#pragma once

#include <filesystem>
#include <optional>
#include <sys/stat.h>

namespace maintenance {

/// Returns the status of what stands at `path`, without following a final link; nothing when nothing
/// stands there. Only absence counts as absence: throws std::system_error for every failure but ENOENT
/// and ENOTDIR.
std::optional<struct stat> linkStatus(const std::filesystem::path& path);

/// Tells whether anything stands at `path`, be it a link that leads nowhere. Throws what linkStatus throws.
bool somethingStandsAt(const std::filesystem::path& path);

/// Tells whether an errno value means that a name, or a directory above it, does not exist.
bool meansAbsence(int error);

} // namespace maintenance
