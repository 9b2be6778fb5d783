#pragma once

#include "fs/fixed_file.h"
#include "fs/scope.h"

#include <filesystem>
#include <optional>
#include <string>

namespace maintenance {

/// Copies one file that lies in a scope to a place in a scope: lets the kernel share or move the bytes where
/// it can, hashes what the copy holds, and publishes it only when it is whole and has the expected hash. The
/// copy has mode 0600 and the owner of its scope; times and attributes are not carried.
///
/// expectedHash  the digest text that the content must have; nothing compares nothing
/// throws        Invalid "transaction source is missing or unsafe"  no single-linked regular file,
///                       exchanged or changed while it was copied, or in
///                       the user scope another account's and not readable
///                       for all
///               Invalid "cannot read transaction source"           it cannot be opened or read
///               Invalid "transaction source hash is wrong"
///               what publishAtomically throws; std::runtime_error "cannot write fixed metadata"
/// After a failure the destination stands as it was.
void copyFixed(const FixedPlace& source, const FixedPlace& destination,
               const std::optional<std::string>& expectedHash);

/// Copies one regular file between absolute paths as copyFixed does. A copy to a place outside both scopes is
/// made beside it and renamed over it, with mode 0600.
///
/// throws  what copyFixed throws
///         std::runtime_error "cannot secure transaction directory", "cannot secure transaction copy"
///         (destination outside the scopes); what the final rename throws
void copyRegular(const std::filesystem::path& source, const std::filesystem::path& destination,
                 const std::optional<std::string>& expectedHash);

/// Copies a tree of directories and single-linked regular files, in the order of the directory listing. A
/// missing source is no error; the destination of the source itself is made only when something lies in it.
///
/// throws  Invalid "maintenance metadata contains a symbolic link"
///         Invalid "maintenance metadata contains a foreign file type"
///         what copyFixed and openFixedDirectory throw
/// Stops at the first error; files already copied stay, each of them whole.
void copyTree(const FixedPlace& source, const FixedPlace& destination);

} // namespace maintenance
