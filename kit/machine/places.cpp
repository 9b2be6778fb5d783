#include "kit/machine/places.h"

#include "fs/directory_entries.h"
#include "fs/existence.h"
#include "fs/fixed_directory.h"
#include "fs/scope.h"
#include "kit/report/printable.h"
#include "validate/invalid.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace maintenance::kit {

namespace {

constexpr mode_t writableByOthers = S_IWGRP | S_IWOTH;

std::string joined(const std::string& directory, const std::string& name)
{
    return directory.ends_with('/') ? directory + name : directory + "/" + name;
}

void note(Sightings& sightings, const std::string& path, std::string rule, std::string message,
          std::string advice)
{
    sightings.findings.push_back(
        {Finding::Severity::Error, path, 0, {}, std::move(rule), std::move(message), std::move(advice)});
}

/// What could not be reached: without the right to, or for another reason that is worth saying.
void noteFailure(Sightings& sightings, const std::string& path, int error)
{
    if (error == EACCES || error == EPERM)
        sightings.unreadable.push_back(path);
    else
        note(sightings, path, "cannot be read: " + std::generic_category().message(error), {},
             "look at it with the rights of its owner");
}

std::string asOwner(uid_t owner) { return owner == ::geteuid() ? "" : "sudo "; }

void examineOwner(Sightings& sightings, const std::string& path, const struct stat& status, uid_t owner,
                  const std::string& wrongOwner, const std::string& wrongMode)
{
    if (status.st_uid != owner)
        note(sightings, path,
             "belongs to user " + std::to_string(status.st_uid) + ", not " + std::to_string(owner),
             wrongOwner, "sudo chown " + std::to_string(owner) + " " + shellQuoted(path));
    if ((status.st_mode & writableByOthers) != 0)
        note(sightings, path,
             "mode " + octalMode(status.st_mode & 07777U) + " lets the group or others write", wrongMode,
             asOwner(owner) + "chmod go-w " + shellQuoted(path));
}

bool isSingleRegular(const struct stat& status) { return S_ISREG(status.st_mode) && status.st_nlink == 1; }

void examineDirectory(Sightings& sightings, const PlacedDirectory& directory)
{
    struct stat status = {};
    if (::fstat(directory.descriptor.get(), &status) == 0)
        examineOwner(sightings, directory.path, status, directory.owner,
                     "maintenance directory ownership is unsafe",
                     "maintenance directory ownership or mode is unsafe");
}

void readContent(PlacedFile& file, int descriptor, Sightings& sightings, std::size_t largest)
{
    std::string content;
    std::array<char, 16384> chunk;
    for (;;) {
        const ssize_t count = ::read(descriptor, chunk.data(), chunk.size());
        if (count < 0) {
            noteFailure(sightings, file.path, errno);
            return;
        }
        if (count == 0)
            break;
        content.append(chunk.data(), static_cast<std::size_t>(count));
        if (content.size() > largest) {
            note(sightings, file.path, "is larger than " + byteCount(largest), {},
                 "it is none of the tool's files");
            return;
        }
    }
    file.text = std::move(content);
}

} // namespace

PlacedDirectory openRootPlace(const std::string& scope, Sightings& sightings)
{
    try {
        PlacedDirectory root{scopeRoot(scope), OwnedFd(), scopeOwner(scope)};
        root.descriptor = walkFixedDirectory(scope, "");
        if (!root)
            noteFailure(sightings, root.path, errno);
        else
            examineDirectory(sightings, root);
        return root;
    } catch (const Invalid& error) {
        note(sightings, {}, "the " + scope + " scope cannot be found", error.what(),
             "run this as the account whose scope it is");
        return {{}, OwnedFd(), 0};
    }
}

PlacedDirectory openPlace(const PlacedDirectory& parent, const std::string& name, Sightings& sightings)
{
    PlacedDirectory directory{joined(parent.path, name), OwnedFd(), parent.owner};
    if (!parent)
        return directory;
    directory.descriptor = walkOneDirectory(parent.descriptor.get(), name);
    if (directory)
        examineDirectory(sightings, directory);
    else if (errno == ELOOP || errno == ENOTDIR)
        note(sightings, directory.path, "is no directory, or a link to one",
             "fixed maintenance directory is missing or redirected", "look at what it is and move it away");
    else if (!meansAbsence(errno))
        noteFailure(sightings, directory.path, errno);
    return directory;
}

std::vector<std::string> namesAt(const PlacedDirectory& directory, Sightings& sightings)
{
    if (!directory)
        return {};
    auto names = directoryEntries(directory.descriptor.get());
    if (!names) {
        noteFailure(sightings, directory.path, errno);
        return {};
    }
    std::sort(names->begin(), names->end());
    return std::move(*names);
}

std::optional<PlacedFile> examinePlace(const PlacedDirectory& directory, const std::string& name,
                                       const UnsafeWords& words, Sightings& sightings)
{
    PlacedFile file{joined(directory.path, name), {}, {}};
    if (!directory)
        return std::nullopt;
    if (::fstatat(directory.descriptor.get(), name.c_str(), &file.status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (!meansAbsence(errno))
            noteFailure(sightings, file.path, errno);
        return std::nullopt;
    }
    if (!isSingleRegular(file.status))
        note(sightings, file.path,
             S_ISREG(file.status.st_mode) ? "has several names (hard links)" : "is a link or no regular file",
             words.kind, "look at what it is and move it away");
    else
        examineOwner(sightings, file.path, file.status, directory.owner, words.owner, words.mode);
    return file;
}

std::optional<PlacedFile> readPlace(const PlacedDirectory& directory, const std::string& name,
                                    const UnsafeWords& words, Sightings& sightings, std::size_t largest)
{
    auto file = examinePlace(directory, name, words, sightings);
    if (!file || !isSingleRegular(file->status))
        return file;
    const OwnedFd opened(
        ::openat(directory.descriptor.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (opened)
        readContent(*file, opened.get(), sightings, largest);
    else
        noteFailure(sightings, file->path, errno);
    return file;
}

} // namespace maintenance::kit
