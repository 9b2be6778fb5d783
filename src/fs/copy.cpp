#include "fs/copy.h"

#include "fs/directory_entries.h"
#include "fs/existence.h"
#include "fs/fixed_directory.h"
#include "fs/publish.h"
#include "fs/sha256.h"
#include "validate/invalid.h"

#include <array>
#include <fcntl.h>
#include <sys/stat.h>

namespace maintenance {

namespace {

constexpr std::size_t copyingChunk = 65536;
constexpr const char* unsafeSource = "transaction source is missing or unsafe";
constexpr const char* unreadableSource = "cannot read transaction source";

OpenFile openSource(const FixedPlace& place)
{
    return openExamined(regular(place, "transaction source"), unreadableSource, unsafeSource);
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
    if (copied != source.status.st_size)
        throw Invalid(unsafeSource);
    return hash.finish();
}

/// Copies to a place outside both scopes.
void copyForeign(const std::filesystem::path& source, const std::filesystem::path& destination,
                 const std::optional<std::string>& expectedHash)
{
    struct stat status{};
    if (::lstat(source.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1)
        throw Invalid(unsafeSource);
    const OwnedFd descriptor(::open(source.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!descriptor)
        throw Invalid(unreadableSource);
    if (expectedHash && sha256(descriptor.get(), status.st_size) != *expectedHash)
        throw Invalid("transaction source hash is wrong");
    prepareForeignDirectory(destination.parent_path());
    const std::filesystem::path fresh = destination.native() + ".new";
    std::filesystem::copy_file(source, fresh, std::filesystem::copy_options::overwrite_existing);
    if (::chmod(fresh.c_str(), 0600) != 0)
        throw std::runtime_error("cannot secure transaction copy");
    std::filesystem::rename(fresh, destination);
}

void copyEntries(const OwnedFd& directory, const FixedPlace& source, const FixedPlace& destination);

void copyEntry(const OwnedFd& directory, const std::string& name, const FixedPlace& source,
               const FixedPlace& destination)
{
    struct stat status{};
    if (::fstatat(directory.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        throw Invalid("maintenance metadata contains a foreign file type");
    if (S_ISLNK(status.st_mode))
        throw Invalid("maintenance metadata contains a symbolic link");
    if (S_ISDIR(status.st_mode)) {
        const OwnedFd entered = walkOneDirectory(directory.get(), name);
        if (!entered)
            throw Invalid("maintenance metadata contains a symbolic link");
        openFixedDirectory(destination.scope, destination.relative, true, true);
        copyEntries(entered, source, destination);
        return;
    }
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1)
        throw Invalid("maintenance metadata contains a foreign file type");
    copyFixed(source, destination, std::nullopt);
}

void copyEntries(const OwnedFd& directory, const FixedPlace& source, const FixedPlace& destination)
{
    const auto names = directoryEntries(directory.get());
    if (!names)
        throw Invalid("maintenance metadata contains a foreign file type");
    for (const std::string& name : *names)
        copyEntry(directory, name, below(source, name), below(destination, name));
}

} // namespace

void copyFixed(const FixedPlace& source, const FixedPlace& destination,
               const std::optional<std::string>& expectedHash)
{
    const OpenFile opened = openSource(source);
    publishAtomically(destination, Durability::Copy, [&](int descriptor) {
        const std::string copied = streamTo(descriptor, opened);
        if (expectedHash && copied != *expectedHash)
            throw Invalid("transaction source hash is wrong");
    });
}

void copyRegular(const std::filesystem::path& source, const std::filesystem::path& destination,
                 const std::optional<std::string>& expectedHash)
{
    const auto from = fixedLocation(source);
    const auto to = fixedLocation(destination);
    if (from && to)
        copyFixed(*from, *to, expectedHash);
    else
        copyForeign(source, destination, expectedHash);
}

void copyTree(const FixedPlace& source, const FixedPlace& destination)
{
    const auto status = linkStatus(absolutePath(source));
    if (!status)
        return;
    if (S_ISLNK(status->st_mode))
        throw Invalid("maintenance metadata contains a symbolic link");
    copyEntries(openFixedDirectory(source.scope, source.relative, false, false), source, destination);
}

} // namespace maintenance
