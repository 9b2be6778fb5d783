#include "fs/copy.h"

#include "fs/directory_entries.h"
#include "fs/existence.h"
#include "fs/fixed_directory.h"
#include "fs/held_locks.h"
#include "fs/publish.h"
#include "fs/sha256.h"
#include "platform/kernel_copy.h"
#include "validate/invalid.h"

#include <array>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>

namespace maintenance {

namespace {

constexpr std::size_t readingChunk = 65536;
// Small enough for what the kernel has just copied to be hashed while it is still in the processor's cache.
constexpr off_t kernelChunk = 262144;
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

/// A copy in the making.
struct Copy {
    const OpenFile& source;
    /// Open for reading and writing.
    int descriptor;
    /// Of the bytes that the copy holds; nothing when nobody compares them.
    std::optional<Sha256> hash;
    /// How many bytes of the source the copy holds.
    off_t copied = 0;
};

[[noreturn]] void failToWrite() { throw std::runtime_error("cannot write fixed metadata"); }

/// Takes note of the bytes that the kernel has brought into the copy. What counts is what stands there: the
/// source could say something else by now.
void acceptCopied(Copy& copy, off_t count)
{
    const off_t end = copy.copied + count;
    std::array<char, readingChunk> chunk;
    while (copy.hash && copy.copied < end) {
        const auto wanted = static_cast<std::size_t>(std::min<off_t>(readingChunk, end - copy.copied));
        const ssize_t read = ::pread(copy.descriptor, chunk.data(), wanted, copy.copied);
        if (read <= 0)
            failToWrite();
        copy.hash->feed(chunk.data(), static_cast<std::size_t>(read));
        copy.copied += read;
    }
    copy.copied = end;
}

/// Makes the copy share the content of the source; false where that cannot be done.
bool shareWhole(Copy& copy)
{
    if (!shareContent(copy.source.descriptor.get(), copy.descriptor))
        return false;
    struct stat status = {};
    if (::fstat(copy.descriptor, &status) != 0)
        failToWrite();
    if (status.st_size != copy.source.status.st_size)
        throw Invalid(unsafeSource);
    acceptCopied(copy, status.st_size);
    return true;
}

/// Lets the kernel copy as much of the examined bytes as it can.
void copyInKernel(Copy& copy)
{
    while (copy.copied < copy.source.status.st_size) {
        const auto wanted = std::min(kernelChunk, copy.source.status.st_size - copy.copied);
        const ssize_t count =
            copyContent(copy.source.descriptor.get(), copy.descriptor, static_cast<std::size_t>(wanted));
        if (count <= 0)
            return;
        acceptCopied(copy, count);
    }
}

/// Reads and writes what is left of the source; never reads past the examined bytes.
void copyRest(Copy& copy)
{
    std::array<char, readingChunk> chunk;
    for (;;) {
        const ssize_t count = ::read(copy.source.descriptor.get(), chunk.data(), chunk.size());
        if (count < 0)
            throw Invalid(unreadableSource);
        if (count == 0)
            return;
        copy.copied += count;
        if (copy.copied > copy.source.status.st_size)
            throw Invalid(unsafeSource);
        if (copy.hash)
            copy.hash->feed(chunk.data(), static_cast<std::size_t>(count));
        if (!writeAll(copy.descriptor, {chunk.data(), static_cast<std::size_t>(count)}))
            failToWrite();
    }
}

/// Copies `source` to the new file `descriptor` and requires the copy to be whole and to have the expected
/// digest.
void copyExpected(int descriptor, const OpenFile& source, const std::optional<std::string>& expectedHash)
{
    Copy copy{source, descriptor, expectedHash ? std::optional<Sha256>(Sha256()) : std::nullopt};
    if (!shareWhole(copy)) {
        copyInKernel(copy);
        copyRest(copy);
    }
    if (copy.copied != source.status.st_size || !isUnchanged(source))
        throw Invalid(unsafeSource);
    if (expectedHash && copy.hash->finish() != *expectedHash)
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
    publishAtomically(
        destination, Durability::Copy,
        [&](int descriptor) { copyExpected(descriptor, source, expectedHash); }, Access::ReadAndWrite);
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
        const OwnedFd copy(::open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!copy || ::fchmod(copy.get(), 0600) != 0)
            throw std::runtime_error("cannot secure transaction copy");
        copyExpected(copy.get(), source, expectedHash);
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
