#include "fs/copy.h"

#include "fs/directory_entries.h"
#include "fs/existence.h"
#include "fs/fixed_directory.h"
#include "fs/held_locks.h"
#include "fs/publish.h"
#include "fs/sha256.h"
#include "validate/invalid.h"

#include <array>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>

namespace maintenance {

namespace {

constexpr std::size_t copyingChunk = 65536;
constexpr const char* unsafeSource = "transaction source is missing or unsafe";
constexpr const char* unreadableSource = "cannot read transaction source";

/// Tells whether the account that a user scope belongs to could not have read the file itself. A copy that
/// is given to the account must not tell it more than the original.
bool isWithheldFromOwner(const OpenFile& file, const FixedPlace& place)
{
    return place.scope == "user" && file.status.st_uid != scopeOwner(place.scope) &&
           (file.status.st_mode & S_IROTH) == 0;
}

OpenFile openSource(const FixedPlace& place)
{
    OpenFile source = openExamined(regular(place, "transaction source"), unreadableSource, unsafeSource);
    if (isWithheldFromOwner(source, place))
        throw Invalid(unsafeSource);
    return source;
}

/// Copies the examined bytes of `source` to `descriptor` and returns their digest; never reads past them.
std::string streamTo(int descriptor, const OpenFile& source)
{
    Sha256 hash;
    std::array<char, copyingChunk> chunk;
    off_t copied = 0;
    for (;;) {
        const ssize_t count = ::read(source.descriptor.get(), chunk.data(), chunk.size());
        if (count < 0)
            throw Invalid(unreadableSource);
        if (count == 0)
            break;
        copied += count;
        if (copied > source.status.st_size)
            throw Invalid(unsafeSource);
        hash.feed(chunk.data(), static_cast<std::size_t>(count));
        if (!writeAll(descriptor, {chunk.data(), static_cast<std::size_t>(count)}))
            throw std::runtime_error("cannot write fixed metadata");
    }
    if (copied != source.status.st_size || !isUnchanged(source))
        throw Invalid(unsafeSource);
    return hash.finish();
}

/// Copies `source` to `descriptor` and requires the copy to be whole and to have the expected digest.
void streamExpected(int descriptor, const OpenFile& source, const std::optional<std::string>& expectedHash)
{
    const std::string copied = streamTo(descriptor, source);
    if (expectedHash && copied != *expectedHash)
        throw Invalid("transaction source hash is wrong");
}

/// Opens a source that lies outside both scopes.
OpenFile openForeign(const std::filesystem::path& path)
{
    struct stat examined = {};
    if (::lstat(path.c_str(), &examined) != 0 || !S_ISREG(examined.st_mode) || examined.st_nlink != 1)
        throw Invalid(unsafeSource);
    OpenFile source{OwnedFd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)), {}};
    if (!source.descriptor)
        throw Invalid(unreadableSource);
    const bool known = ::fstat(source.descriptor.get(), &source.status) == 0;
    if (known && isHeldLock(source.status)) {
        (void)source.descriptor.release();
        throw Invalid(unsafeSource);
    }
    if (!known || !sameFile(source.status, examined))
        throw Invalid(unsafeSource);
    return source;
}

void publishCopy(const OpenFile& source, const FixedPlace& destination,
                 const std::optional<std::string>& expectedHash)
{
    publishAtomically(destination, Durability::Copy,
                      [&](int descriptor) { streamExpected(descriptor, source, expectedHash); });
}

/// Copies to a place outside both scopes.
void publishForeign(const OpenFile& source, const std::filesystem::path& destination,
                    const std::optional<std::string>& expectedHash)
{
    prepareForeignDirectory(destination.parent_path());
    const std::filesystem::path fresh = destination.native() + ".new";
    try {
        // Truncating what stands there could reach another file through a second name of it.
        ::unlink(fresh.c_str());
        const OwnedFd copy(::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!copy || ::fchmod(copy.get(), 0600) != 0)
            throw std::runtime_error("cannot secure transaction copy");
        streamExpected(copy.get(), source, expectedHash);
        std::filesystem::rename(fresh, destination);
    } catch (...) {
        ::unlink(fresh.c_str());
        throw;
    }
}

void copyEntries(const OwnedFd& directory, const FixedPlace& source, const FixedPlace& destination,
                 int depth);

void copyEntry(const OwnedFd& directory, const std::string& name, const FixedPlace& source,
               const FixedPlace& destination, int depth)
{
    struct stat status = {};
    if (::fstatat(directory.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        throw Invalid("maintenance metadata contains a foreign file type");
    if (S_ISLNK(status.st_mode))
        throw Invalid("maintenance metadata contains a symbolic link");
    if (S_ISDIR(status.st_mode)) {
        const OwnedFd entered = enterDirectory(scopeOwner(source.scope), directory.get(), name);
        if (!entered)
            throw Invalid("maintenance metadata contains a symbolic link");
        openFixedDirectory(destination.scope, destination.relative, true, true);
        copyEntries(entered, source, destination, depth + 1);
        return;
    }
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1)
        throw Invalid("maintenance metadata contains a foreign file type");
    copyFixed(source, destination, std::nullopt);
}

void copyEntries(const OwnedFd& directory, const FixedPlace& source, const FixedPlace& destination, int depth)
{
    const auto names = directoryEntries(directory.get());
    if (!names || depth == deepestCopiedTree)
        throw Invalid("maintenance metadata contains a foreign file type");
    for (const std::string& name : *names)
        copyEntry(directory, name, below(source, name), below(destination, name), depth);
}

} // namespace

void copyFixed(const FixedPlace& source, const FixedPlace& destination,
               const std::optional<std::string>& expectedHash)
{
    publishCopy(openSource(source), destination, expectedHash);
}

void copyRegular(const std::filesystem::path& source, const std::filesystem::path& destination,
                 const std::optional<std::string>& expectedHash)
{
    const auto from = fixedLocation(source);
    const OpenFile opened = from ? openSource(*from) : openForeign(source);
    if (const auto to = fixedLocation(destination))
        publishCopy(opened, *to, expectedHash);
    else
        publishForeign(opened, destination, expectedHash);
}

void copyTree(const FixedPlace& source, const FixedPlace& destination)
{
    const auto status = linkStatus(absolutePath(source));
    if (!status)
        return;
    if (S_ISLNK(status->st_mode))
        throw Invalid("maintenance metadata contains a symbolic link");
    copyEntries(openFixedDirectory(source.scope, source.relative, false, false), source, destination, 1);
}

} // namespace maintenance
