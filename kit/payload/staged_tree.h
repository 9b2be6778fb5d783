#pragma once

#include "kit/payload/payload.h"

#include <string>
#include <vector>

namespace maintenance::kit {

/// Reads staged trees: directories that hold, below themselves, what an installation places below a scope
/// root. No link is followed. Every file that passes the rules is hashed.
///
/// roots         the trees; together they are one payload
/// showProgress  draw a bar while hashing
/// throws        Failure (NoInput) when a root is no directory or something in it cannot be read or changes
///               meanwhile
Payload readStagedTrees(const std::vector<std::string>& roots, bool showProgress);

} // namespace maintenance::kit
