#pragma once

#include <optional>
#include <sys/types.h>

namespace maintenance {

/// Returns the user id of the account that is logged in at the console, or nothing when the platform
/// knows of none. The id is passed on as the platform reports it: it can be 0 (a login window, or root
/// itself) or all bits set, and the caller refuses those.
///
/// Every call asks the platform again. Throws std::runtime_error "cannot resolve the invoking console
/// account" when the platform could not be asked for want of memory or descriptors, or by an I/O error.
std::optional<uid_t> consoleAccountUid();

} // namespace maintenance
