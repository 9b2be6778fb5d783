#pragma once

#include "fs/scope.h"

#include <filesystem>
#include <string>

namespace maintenance {

/// Removes the entry `name` of the open, checked directory `directory` (borrowed) of a scope, with
/// everything in it: a single-linked regular file, or a directory of such and of directories. Absence
/// counts as removed.
///
/// throws  Invalid "fixed mutation target changed"                it cannot be examined
///         Invalid "fixed mutation target was redirected"         a symbolic link; it stays
///         Invalid "cannot remove unsafe fixed metadata file"     several hard links, or the unlink failed
///         Invalid "fixed mutation target has a foreign file type"
///         Invalid "fixed mutation directory was redirected"      a directory cannot be opened
///         Invalid "cannot enumerate fixed mutation directory"    also for one deeper than deepestTree
///         Invalid "cannot remove fixed metadata directory"       also one of another owner than the scope's
/// What was removed before a failure stays removed.
void removeTreeAt(const std::string& scope, int directory, const std::string& name);

/// Removes what stands at a place below a scope root, by removeTreeAt from its safe parent directory, which
/// must exist; durable when it returns. Throws what openFixedDirectory and removeTreeAt throw, and
/// std::runtime_error "cannot synchronize fixed metadata directory".
void removeFixed(const FixedPlace& place);

/// Removes an absolute path that lies in a scope. Throws what removeFixed throws and Invalid "mutation path
/// is outside a fixed scope".
void removeFixedPath(const std::filesystem::path& path);

} // namespace maintenance
