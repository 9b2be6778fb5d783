#include "fs/leftovers.h"

#include "fs/directory_entries.h"
#include "fs/fixed_directory.h"
#include "fs/owner_power.h"

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <iterator>
#include <map>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace maintenance {

namespace {

constexpr std::string_view infix = ".new.";

bool isProcessId(std::string_view text)
{
    return !text.empty() && text.front() != '0' &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool looksTemporary(const std::string& entry)
{
    return entry.starts_with('.') && entry.find(infix) != std::string::npos;
}

/// Returns the status of a regular file of the owner's that has two names.
std::optional<struct stat> statusOfTwin(int directory, const std::string& name, uid_t owner)
{
    struct stat status = {};
    if (::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(status.st_mode) ||
        status.st_nlink != 2 || status.st_uid != owner)
        return std::nullopt;
    return status;
}

/// Of files with two names: which of `names` each of them has, by device and inode.
using Twins = std::map<std::pair<dev_t, ino_t>, std::string>;

Twins twinsAmong(int directory, const std::set<std::string>& names, uid_t owner)
{
    Twins twins;
    for (const std::string& name : names)
        if (const auto status = statusOfTwin(directory, name, owner))
            twins.emplace(std::pair(status->st_dev, status->st_ino), name);
    return twins;
}

} // namespace

std::string temporaryName(const std::string& name)
{
    const std::string suffix = std::string(infix) + std::to_string(::getpid());
    std::string temporary = ".";
    temporary.append(name, 0, NAME_MAX - 1 - suffix.size());
    return temporary.append(suffix);
}

bool isTemporaryNameOf(std::string_view entry, std::string_view name)
{
    const std::size_t end = entry.rfind(infix);
    if (!entry.starts_with('.') || end == std::string_view::npos || end == 0 ||
        !isProcessId(entry.substr(end + infix.size())))
        return false;
    const std::string_view written = entry.substr(1, end - 1);
    return written == name || (entry.size() == NAME_MAX && name.starts_with(written));
}

void removeLeftovers(const std::string& scope, int directory, const std::string& name,
                     const std::function<bool(const std::string& entry)>& isKept)
{
    const auto entries = directoryEntries(directory);
    if (!entries)
        return;
    const uid_t owner = scopeOwner(scope);
    const std::string own = temporaryName(name);
    for (const std::string& entry : *entries) {
        struct stat status = {};
        if (entry == own || !isTemporaryNameOf(entry, name) || isKept(entry) ||
            ::fstatat(directory, entry.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(status.st_mode) || status.st_nlink != 1 || status.st_uid != owner)
            continue;
        withOwnersPower(directory, owner, [&] { return ::unlinkat(directory, entry.c_str(), 0); });
    }
}

void removeLeftovers(const std::string& scope, int directory, const std::string& name)
{
    removeLeftovers(scope, directory, name, [](const std::string&) { return false; });
}

void removeSecondNames(const std::string& scope, int directory, const std::vector<std::string>& entries)
{
    std::set<std::string> names;
    std::remove_copy_if(entries.begin(), entries.end(), std::inserter(names, names.end()), looksTemporary);
    removeSecondNames(scope, directory, entries, names);
}

void removeSecondNames(const std::string& scope, int directory, const std::vector<std::string>& entries,
                       const std::set<std::string>& names)
{
    std::vector<std::string> candidates;
    std::copy_if(entries.begin(), entries.end(), std::back_inserter(candidates),
                 [&](const std::string& entry) { return looksTemporary(entry) && !names.contains(entry); });
    const uid_t owner = scopeOwner(scope);
    if (candidates.empty() || !belongsToOwner(owner, directory))
        return;
    const Twins twins = twinsAmong(directory, names, owner);
    for (const std::string& candidate : candidates) {
        const auto status = statusOfTwin(directory, candidate, owner);
        const auto twin = status ? twins.find({status->st_dev, status->st_ino}) : twins.end();
        if (twin != twins.end() && isTemporaryNameOf(candidate, twin->second))
            withOwnersPower(directory, owner, [&] { return ::unlinkat(directory, candidate.c_str(), 0); });
    }
}

} // namespace maintenance
