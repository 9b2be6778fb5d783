#pragma once

#include "fs/scope.h"

#include <string>

namespace maintenance {

/// Whether a symbolic link in an owned file's place is removed or refused.
enum class Links { Refuse, Remove };

/// Removes a file that a product or a package receipt owns: only the very file that it has hashed. A missing
/// file, or a missing directory above it, is nothing to remove. Durable when it returns.
///
/// expectedHash  digest text that the content must have; empty compares nothing
/// links         Remove deletes a symbolic link itself, never what it leads to
/// throws        Invalid "owned mutation target changed"
///               Invalid "cannot remove redirected transaction output"
///               Invalid "owned mutation target is a link or foreign file"
///               Invalid "owned mutation target was redirected"
///               Invalid "owned mutation target changed during validation"
///               Invalid "cannot hash an owned file descriptor"
///               Invalid "receipt-owned file hash changed"
///               Invalid "owned mutation target changed before removal"
///               Invalid "cannot remove receipt-owned file"
///               what openFixedDirectory throws for a redirected directory; std::system_error when the place
///               can neither be examined nor is absent
void removeOwned(const FixedPlace& place, const std::string& expectedHash, Links links);

} // namespace maintenance
