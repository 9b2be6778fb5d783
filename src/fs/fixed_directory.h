#pragma once

#include "fs/owned_fd.h"
#include "fs/scope.h"

#include <string>
#include <string_view>

namespace maintenance {

/// Opens a directory below a scope root, component by component, never following a link.
///
/// relativePath  components separated by single "/"; empty means the root itself
/// create        make missing components with mode 0755 (less the umask), owned by the scope's owner and
///               synchronised with the directory that they are in
/// check         apply checkDirectory to the root and to every component
/// returns       the open directory; the caller owns it
/// throws        Invalid "scope root is missing or unsafe"
///               Invalid "fixed maintenance directory is missing or redirected"  a component is missing
///                       (without `create`), a link, no directory, empty, "." or ".."
///               Invalid "cannot create fixed maintenance directory"
///               std::runtime_error "cannot synchronize fixed metadata directory"
///               what assignCreatedOwner, checkDirectory and invokingHome throw
/// Directories made before a failure stay: they are rightly owned and the next run uses them.
OwnedFd openFixedDirectory(const std::string& scope, std::string_view relativePath, bool create, bool check);

/// Walks by enterDirectory, creating and checking nothing, and returns an empty OwnedFd instead
/// of throwing when a component cannot be opened. Throws only what invokingHome throws.
OwnedFd walkFixedDirectory(const std::string& scope, std::string_view relativePath);

/// Opens the directory `name` inside the open directory `parent` (borrowed) without following a link; empty
/// with errno set when that fails, also for a name that is empty, "." or "..". The caller examines its owner.
OwnedFd walkOneDirectory(int parent, const std::string& name);

/// Does the same where any owner will do, except that root does not enter a directory that the scope's owner
/// `owner` could not read: empty, errno EACCES.
OwnedFd enterDirectory(uid_t owner, int parent, const std::string& name);

/// Requires an open directory to be safe for a scope of `owner`; `descriptor` is borrowed.
///
/// throws  Invalid "maintenance directory ownership or mode is unsafe"  no directory, or writable for its
///                                                                      group or others
///         Invalid "maintenance directory ownership is unsafe"          another owner
void checkDirectory(int descriptor, uid_t owner);

/// Tells whether the open directory `directory` (borrowed) is the scope's owner's. The owner may have named
/// another account's directory like metadata; what is in it is not ours to remove.
bool belongsToOwner(uid_t owner, int directory);

/// Gives what this run has just created in the open directory `directory`, open as `descriptor` (both
/// borrowed), to the scope's owner `owner`; the group stays. Does nothing where the owner is the process's
/// real user or has it already. The change is made with the power that created it, so that a foreign object
/// exchanged for a new directory is never given away.
///
/// throws  Invalid "cannot assign fixed maintenance ownership"
void assignCreatedOwner(int directory, int descriptor, uid_t owner);

/// The directory part of a relative path: everything before the last "/", or "".
std::string_view parentOf(std::string_view relativePath);

/// The last component of a relative path.
std::string nameOf(std::string_view relativePath);

} // namespace maintenance
