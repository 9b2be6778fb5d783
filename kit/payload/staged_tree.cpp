#include "kit/payload/staged_tree.h"

#include "fs/directory_entries.h"
#include "fs/fixed_directory.h"
#include "fs/fixed_file.h"
#include "fs/sha256.h"
#include "kit/payload/entry_rules.h"
#include "kit/report/failure.h"
#include "kit/report/printable.h"
#include "kit/report/progress.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace maintenance::kit {

namespace {

constexpr std::size_t hashingChunk = 1U << 20U;

[[noreturn]] void fail(const std::string& place, const std::string& reason)
{
    throw Failure(NoInput, printable(place, 4096) + " cannot be read: " + reason,
                  "the tree must be readable and must not change while it is read");
}

std::string lastError() { return std::generic_category().message(errno); }

/// A file that passed the rules and waits to be hashed.
struct Candidate {
    std::string root;
    std::string path;
    struct stat status;
};

/// What a walk through all trees has found.
struct Walk {
    EntryRules rules;
    FindingList findings;
    std::vector<Candidate> candidates;
};

PayloadEntry::Kind kindOf(const struct stat& status)
{
    switch (status.st_mode & S_IFMT) {
    case S_IFREG:
        return PayloadEntry::Kind::File;
    case S_IFDIR:
        return PayloadEntry::Kind::Directory;
    case S_IFLNK:
        return PayloadEntry::Kind::SymbolicLink;
    default:
        return PayloadEntry::Kind::Special;
    }
}

std::vector<std::string> sortedNames(int directory, const std::string& place)
{
    auto names = directoryEntries(directory);
    if (!names)
        fail(place, lastError());
    std::sort(names->begin(), names->end());
    return std::move(*names);
}

// One call for each level of directories, of which there are at most deepestTree.
// NOLINTNEXTLINE(misc-no-recursion)
void walkDirectory(Walk& walk, const std::string& root, int directory, const std::string& path, int depth)
{
    const std::string place = path.empty() ? root : root + "/" + path;
    if (depth > deepestTree)
        fail(place, "it is nested too deeply");
    for (const std::string& name : sortedNames(directory, place)) {
        const std::string below = path.empty() ? name : std::string(path).append("/").append(name);
        struct stat status = {};
        if (::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            fail(root + "/" + below, lastError());
        const PayloadEntry entry{below, kindOf(status), status.st_mode & 07777U, status.st_nlink > 1};
        if (walk.rules.examine(entry, root, walk.findings))
            walk.candidates.push_back({root, below, status});
        if (entry.kind != PayloadEntry::Kind::Directory)
            continue;
        const OwnedFd next = walkOneDirectory(directory, name);
        if (!next)
            fail(root + "/" + below, lastError());
        walkDirectory(walk, root, next.get(), below, depth + 1);
    }
}

void walkTree(Walk& walk, const std::string& root)
{
    const OwnedFd directory(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory)
        fail(root, lastError());
    walkDirectory(walk, root, directory.get(), {}, 0);
}

/// Hashes one file and proves that it is still the one that was examined.
std::string hashCandidate(const Candidate& candidate, Progress& progress)
{
    const std::string place = candidate.root + "/" + candidate.path;
    OpenFile file{OwnedFd(::open(place.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)),
                  candidate.status};
    if (!file.descriptor)
        fail(place, lastError());
    Sha256 hash;
    std::vector<char> chunk(hashingChunk);
    for (;;) {
        const ssize_t count = ::read(file.descriptor.get(), chunk.data(), chunk.size());
        if (count < 0)
            fail(place, lastError());
        if (count == 0)
            break;
        hash.feed(chunk.data(), static_cast<std::size_t>(count));
        progress.advance(static_cast<std::uint64_t>(count), candidate.path);
    }
    struct stat now = {};
    if (::fstat(file.descriptor.get(), &now) != 0 || !sameFile(now, candidate.status) || !isUnchanged(file) ||
        hash.length != static_cast<std::uint64_t>(candidate.status.st_size))
        fail(place, "it changed meanwhile");
    return hash.finish();
}

} // namespace

Payload readStagedTrees(const std::vector<std::string>& roots, bool showProgress)
{
    Walk walk;
    for (const std::string& root : roots)
        walkTree(walk, root);
    std::uint64_t total = 0;
    for (const Candidate& candidate : walk.candidates)
        total += static_cast<std::uint64_t>(candidate.status.st_size);

    Payload payload{{}, {}, std::move(walk.findings)};
    Progress progress(showProgress, "hashing", total);
    for (const Candidate& candidate : walk.candidates)
        payload.files.push_back({candidate.path, hashCandidate(candidate, progress), {}});
    std::sort(payload.files.begin(), payload.files.end(),
              [](const PayloadFile& one, const PayloadFile& other) { return one.path < other.path; });
    return payload;
}

} // namespace maintenance::kit
