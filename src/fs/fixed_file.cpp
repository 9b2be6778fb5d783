#include "fs/fixed_file.h"

#include "fs/fixed_directory.h"
#include "fs/held_locks.h"
#include "fs/sha256.h"
#include "platform/stat_times.h"
#include "validate/invalid.h"
#include "validate/text_fields.h"

#include <array>
#include <fcntl.h>
#include <vector>

namespace maintenance {

namespace {

// Non-blocking, so that a pipe planted in a file's place cannot hold up the process.
constexpr int readFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr mode_t writableByOthers = S_IWGRP | S_IWOTH;
constexpr std::size_t readingChunk = 4096;
constexpr const char* unreadableOwnedFile = "cannot read an owned file";

bool isSingleLinkedRegular(const struct stat& status)
{
    return S_ISREG(status.st_mode) && status.st_nlink == 1;
}

bool isSafeMetadata(const struct stat& status, uid_t owner)
{
    return isSingleLinkedRegular(status) && (status.st_mode & writableByOthers) == 0 &&
           status.st_uid == owner && status.st_size <= largestMetadata;
}

bool sameTime(const timespec& one, const timespec& other)
{
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

/// Examines the entry `name` of `directory`; throws Invalid `unsafe` when there is none.
ExaminedFile examine(OwnedFd directory, std::string name, const std::string& unsafe)
{
    ExaminedFile file{std::move(directory), std::move(name), {}};
    if (!file.directory ||
        ::fstatat(file.directory.get(), file.name.c_str(), &file.status, AT_SYMLINK_NOFOLLOW) != 0)
        throw Invalid(unsafe);
    return file;
}

/// Says why `name`, which should be a directory on the way to an owned file, cannot be entered.
[[noreturn]] void refuseOwnedComponent(int directory, const std::string& name)
{
    struct stat status = {};
    if (::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        throw Invalid("owned file is missing");
    if (S_ISLNK(status.st_mode))
        throw Invalid("owned path contains a symbolic link");
    if (!S_ISDIR(status.st_mode))
        throw Invalid("owned path has a foreign file type");
    throw Invalid(unreadableOwnedFile);
}

OwnedFd openOwnedParent(const FixedPlace& place)
{
    OwnedFd current = openFixedDirectory(place.scope, "", false, false);
    const uid_t owner = scopeOwner(place.scope);
    const std::string_view parent = parentOf(place.relative);
    if (parent.empty())
        return current;
    for (const std::string& name : split(parent, '/')) {
        OwnedFd next = enterDirectory(owner, current.get(), name);
        if (!next)
            refuseOwnedComponent(current.get(), name);
        current = std::move(next);
    }
    return current;
}

} // namespace

bool isUnchanged(const OpenFile& file)
{
    struct stat now = {};
    return ::fstat(file.descriptor.get(), &now) == 0 && now.st_size == file.status.st_size &&
           sameTime(modificationTime(now), modificationTime(file.status)) &&
           sameTime(statusChangeTime(now), statusChangeTime(file.status));
}

bool sameFile(const struct stat& one, const struct stat& other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

ExaminedFile regular(const FixedPlace& place, const std::string& subject)
{
    const std::string unsafe = subject + " is missing or unsafe";
    ExaminedFile file =
        examine(walkFixedDirectory(place.scope, parentOf(place.relative)), nameOf(place.relative), unsafe);
    if (!isSingleLinkedRegular(file.status))
        throw Invalid(unsafe);
    return file;
}

ExaminedFile validateFixedMetadata(const FixedPlace& place, const std::string& subject)
{
    ExaminedFile file = regular(place, subject);
    if (!isSafeMetadata(file.status, scopeOwner(place.scope)))
        throw Invalid(subject + " ownership or mode is unsafe");
    return file;
}

OpenFile openExamined(const ExaminedFile& file, const std::string& unreadable, const std::string& exchanged)
{
    OpenFile opened{OwnedFd(::openat(file.directory.get(), file.name.c_str(), readFlags)), {}};
    if (!opened.descriptor)
        throw Invalid(unreadable);
    const bool examined = ::fstat(opened.descriptor.get(), &opened.status) == 0;
    if (examined && isHeldLock(opened.status)) {
        (void)opened.descriptor.release();
        throw Invalid(exchanged);
    }
    if (!examined || !sameFile(opened.status, file.status) || opened.status.st_mode != file.status.st_mode ||
        opened.status.st_nlink != file.status.st_nlink || opened.status.st_uid != file.status.st_uid ||
        opened.status.st_size != file.status.st_size)
        throw Invalid(exchanged);
    return opened;
}

OpenFile openExamined(const ExaminedFile& file, const std::string& subject)
{
    return openExamined(file, subject + " cannot be read", subject + " changed during validation");
}

std::string readContent(const OpenFile& file, const std::string& subject)
{
    const auto limit = static_cast<std::size_t>(file.status.st_size);
    std::string content;
    content.reserve(limit);
    std::array<char, readingChunk> chunk;
    for (;;) {
        const ssize_t count = ::read(file.descriptor.get(), chunk.data(), chunk.size());
        if (count < 0)
            throw Invalid(subject + " cannot be read");
        if (count == 0)
            break;
        content.append(chunk.data(), static_cast<std::size_t>(count));
        // A file that grows is never followed; the comparison below would refuse it anyway.
        if (content.size() > limit)
            throw Invalid(subject + " changed while being read");
    }
    if (!isUnchanged(file))
        throw Invalid(subject + " changed while being read");
    return content;
}

std::string readFixedRegular(const FixedPlace& place, const std::string& subject)
{
    const std::string unsafe = subject + " is missing or unsafe";
    const ExaminedFile file = examine(openFixedDirectory(place.scope, parentOf(place.relative), false, true),
                                      nameOf(place.relative), unsafe);
    if (!isSafeMetadata(file.status, scopeOwner(place.scope)))
        throw Invalid(unsafe);
    return readContent(
        openExamined(file, subject + " cannot be opened safely", subject + " changed during validation"),
        subject);
}

std::string readText(const FixedPlace& place, const std::string& subject)
{
    return readContent(openExamined(validateFixedMetadata(place, subject), subject), subject);
}

std::string readText(const std::filesystem::path& path, const std::string& scope, const std::string& subject)
{
    return readText(placeInScope(scope, path), subject);
}

ExaminedFile safeFile(const FixedPlace& place)
{
    ExaminedFile file = examine(openOwnedParent(place), nameOf(place.relative), "owned file is missing");
    if (S_ISLNK(file.status.st_mode))
        throw Invalid("owned path contains a symbolic link");
    if (!isSingleLinkedRegular(file.status))
        throw Invalid("owned path has a foreign file type");
    return file;
}

std::string hashOwnedFile(const FixedPlace& place)
{
    const OpenFile file =
        openExamined(safeFile(place), unreadableOwnedFile, "owned file changed during validation");
    return sha256(file.descriptor.get(), file.status.st_size);
}

} // namespace maintenance
