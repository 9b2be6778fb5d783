#include "fs/leftovers.h"

#include "fs/directory_entries.h"
#include "fs/owner_power.h"

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace maintenance {

namespace {

constexpr std::string_view infix = ".new.";

bool isProcessId(std::string_view text)
{
    return !text.empty() && text.front() != '0' &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
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

void removeLeftovers(const std::string& scope, int directory, const std::string& name)
{
    const auto entries = directoryEntries(directory);
    if (!entries)
        return;
    const uid_t owner = scopeOwner(scope);
    const std::string own = temporaryName(name);
    for (const std::string& entry : *entries) {
        struct stat status = {};
        if (entry == own || !isTemporaryNameOf(entry, name) ||
            ::fstatat(directory, entry.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(status.st_mode) || status.st_nlink != 1 || status.st_uid != owner)
            continue;
        withOwnersPower(directory, owner, [&] { return ::unlinkat(directory, entry.c_str(), 0); });
    }
}

} // namespace maintenance
