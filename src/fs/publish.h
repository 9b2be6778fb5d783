#pragma once

#include "fs/scope.h"
#include "platform/durable_sync.h"

#include <filesystem>
#include <functional>
#include <string_view>

namespace maintenance {

/// What a new file is open for.
enum class Access { Write, ReadAndWrite };

/// Publishes a file atomically and durably: what `write` produces appears whole under the final name, with
/// mode 0600 and owned by the scope's owner, or not at all. Missing directories are created; below the
/// maker's support directory all of them are checked. Before a record is published, what killed runs have
/// left of it is removed.
///
/// place       where the file is to stand
/// durability  how far the content and the name must have got when this returns
/// write       writes the content to the descriptor that it is lent; may throw, which leaves the old content
/// access      whether `write` can read back what it wrote
/// throws      Invalid "fixed metadata destination is unsafe"  something else than a single-linked regular
///                     file of the scope's owner stands there
///             std::runtime_error "cannot create fixed metadata atomically"  (also for a leftover of the
///                     temporary name, which stays), "cannot synchronize fixed metadata",
///                     "cannot publish fixed metadata",
///                     "cannot synchronize fixed metadata directory"  the new content is visible then
///             what openFixedDirectory, assignCreatedOwner and `write` throw
/// After any failure but the last the old content stands and the temporary file is gone.
void publishAtomically(const FixedPlace& place, Durability durability,
                       const std::function<void(int descriptor)>& write, Access access = Access::Write);

/// Publishes `content` at `place` as publishAtomically does.
///
/// throws  what publishAtomically throws
///         std::runtime_error "cannot write fixed metadata"
void atomicWriteFixed(const FixedPlace& place, std::string_view content,
                      Durability durability = Durability::Record);

/// Writes metadata to an absolute path: by atomicWriteFixed where the path lies in a scope, else by a plain
/// rename of path + ".new", with mode 0600.
///
/// throws  what atomicWriteFixed throws
///         std::runtime_error "cannot secure transaction directory", "cannot write maintenance metadata",
///         "cannot secure maintenance metadata" (outside the scopes); what the final rename throws
void text(const std::filesystem::path& path, std::string_view content,
          Durability durability = Durability::Record);

/// Makes the directory of a path outside both scopes, with mode 0755 where it belongs to a transaction.
/// Throws std::runtime_error "cannot secure transaction directory".
void prepareForeignDirectory(const std::filesystem::path& directory);

/// Writes all of `content` to `descriptor` (borrowed), going on after short writes.
/// Returns false when a write fails or writes nothing.
bool writeAll(int descriptor, std::string_view content);

} // namespace maintenance
