#pragma once

#include "fs/scope.h"

#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace maintenance {

/// Returns the name under which this process writes what is to be called `name`: "." + name + ".new." and the
/// process id; of a very long name only as much as a file system accepts.
std::string temporaryName(const std::string& name);

/// Tells whether `entry` is the temporary name that some process gives to what is to be called `name`.
bool isTemporaryNameOf(std::string_view entry, std::string_view name);

/// Removes what earlier runs, killed while they published `name`, have left under temporary names in the open
/// directory `directory` (borrowed). Only single-linked regular files of the scope's owner are removed, and
/// never this process's own temporary name, whose presence is an error of its own. Must be called with the
/// scope's lock held, when no other run can be writing there. Whatever cannot be removed is left alone.
///
/// isKept  tells which names in the directory stay, whatever they look like
void removeLeftovers(const std::string& scope, int directory, const std::string& name,
                     const std::function<bool(const std::string& entry)>& isKept);

/// Does the same where no name stays that looks like a temporary one.
void removeLeftovers(const std::string& scope, int directory, const std::string& name);

/// Takes away what is left of renames that lost their second half: in the open directory `directory`
/// (borrowed) of the scope's owner, the temporary name of a regular file of the owner's that has this name,
/// its own, and no other. The file keeps its own name. Whatever cannot be removed is left alone.
///
/// entries  all names in the directory
void removeSecondNames(const std::string& scope, int directory, const std::vector<std::string>& entries);

/// Does the same for the files called like one of `names` alone. None of these names is taken away.
void removeSecondNames(const std::string& scope, int directory, const std::vector<std::string>& entries,
                       const std::set<std::string>& names);

} // namespace maintenance
