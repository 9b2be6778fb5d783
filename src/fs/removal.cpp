#include "fs/removal.h"

#include "fs/directory_entries.h"
#include "fs/fixed_directory.h"
#include "fs/owner_power.h"
#include "platform/durable_sync.h"
#include "validate/invalid.h"

#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>

namespace maintenance {

namespace {

bool unlinkAsOwner(uid_t owner, int directory, const std::string& name, int flags)
{
    return withOwnersPower(directory, owner, [&] { return ::unlinkat(directory, name.c_str(), flags); }) == 0;
}

void removeEntry(uid_t owner, int directory, const std::string& name, int depth);

void removeDirectory(uid_t owner, int parent, const std::string& name, int depth)
{
    const OwnedFd directory = walkOneDirectory(parent, name);
    if (!directory)
        throw Invalid("fixed mutation directory was redirected");
    if (!belongsToOwner(owner, directory.get()))
        throw Invalid("cannot remove fixed metadata directory");
    const auto entries = directoryEntries(directory.get());
    if (!entries || depth == deepestTree)
        throw Invalid("cannot enumerate fixed mutation directory");
    for (const std::string& entry : *entries)
        removeEntry(owner, directory.get(), entry, depth + 1);
    if (!unlinkAsOwner(owner, parent, name, AT_REMOVEDIR))
        throw Invalid("cannot remove fixed metadata directory");
}

void removeEntry(uid_t owner, int directory, const std::string& name, int depth)
{
    struct stat status = {};
    if (::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT)
            return;
        throw Invalid("fixed mutation target changed");
    }
    if (S_ISLNK(status.st_mode))
        throw Invalid("fixed mutation target was redirected");
    if (S_ISREG(status.st_mode)) {
        if (status.st_nlink != 1 || !unlinkAsOwner(owner, directory, name, 0))
            throw Invalid("cannot remove unsafe fixed metadata file");
        return;
    }
    if (!S_ISDIR(status.st_mode))
        throw Invalid("fixed mutation target has a foreign file type");
    removeDirectory(owner, directory, name, depth);
}

} // namespace

void removeTreeAt(const std::string& scope, int directory, const std::string& name)
{
    removeEntry(scopeOwner(scope), directory, name, 1);
}

void removeFixed(const FixedPlace& place)
{
    const OwnedFd parent = openFixedDirectory(place.scope, parentOf(place.relative), false, true);
    removeTreeAt(place.scope, parent.get(), nameOf(place.relative));
    if (!synchronize(parent.get(), Durability::Record))
        throw std::runtime_error("cannot synchronize fixed metadata directory");
}

void removeFixedPath(const std::filesystem::path& path)
{
    const auto place = fixedLocation(path);
    if (!place)
        throw Invalid("mutation path is outside a fixed scope");
    removeFixed(*place);
}

} // namespace maintenance
