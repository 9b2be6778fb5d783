#pragma once

#include <string>

namespace maintenance {

/// Marks the boundary between two durable steps. Has no effect; a test executable may link a definition of
/// its own that counts the boundaries or stops at one.
///
/// name  "publish." and a file's index, "prepare.lease." or "finish.lease." and a scope's index,
///       "source.receipt." and a package's index, "uninstall." and a file's serial, "uninstall.receipt." and
///       a package identifier
void checkpoint(const std::string& name);

} // namespace maintenance
