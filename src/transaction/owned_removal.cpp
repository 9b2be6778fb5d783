#include "transaction/owned_removal.h"

#include "fs/existence.h"
#include "fs/fixed_directory.h"
#include "fs/fixed_file.h"
#include "fs/owner_power.h"
#include "fs/sha256.h"
#include "platform/durable_sync.h"
#include "validate/invalid.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace maintenance {

namespace {

void requireExpectedContent(const OpenFile& file, const std::string& expectedHash)
{
    if (expectedHash.empty())
        return;
    const std::string hash =
        sha256(file.descriptor.get(), file.status.st_size, "cannot hash an owned file descriptor");
    if (hash != expectedHash)
        throw Invalid("receipt-owned file hash changed");
}

void requireStillNamed(const ExaminedFile& file)
{
    struct stat status = {};
    if (::fstatat(file.directory.get(), file.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
        !sameFile(status, file.status))
        throw Invalid("owned mutation target changed before removal");
}

void unlinkDurably(const std::string& scope, const ExaminedFile& file, const char* failure)
{
    const int directory = file.directory.get();
    if (withOwnersPower(directory, scopeOwner(scope),
                        [&] { return ::unlinkat(directory, file.name.c_str(), 0); }) != 0)
        throw Invalid(failure);
    if (!synchronize(file.directory.get(), Durability::Copy))
        throw std::runtime_error("cannot synchronize fixed metadata directory");
}

} // namespace

void removeOwned(const FixedPlace& place, const std::string& expectedHash, Links links)
{
    if (!somethingStandsAt(absolutePath(place)))
        return;
    ExaminedFile file{
        openFixedDirectory(place.scope, parentOf(place.relative), false, false), nameOf(place.relative), {}};
    if (::fstatat(file.directory.get(), file.name.c_str(), &file.status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT)
            return;
        throw Invalid("owned mutation target changed");
    }
    if (S_ISLNK(file.status.st_mode) && links == Links::Remove) {
        unlinkDurably(place.scope, file, "cannot remove redirected transaction output");
        return;
    }
    if (!S_ISREG(file.status.st_mode) || file.status.st_nlink != 1)
        throw Invalid("owned mutation target is a link or foreign file");
    const OpenFile opened = openExamined(file, "owned mutation target was redirected",
                                         "owned mutation target changed during validation");
    requireExpectedContent(opened, expectedHash);
    requireStillNamed(file);
    unlinkDurably(place.scope, file, "cannot remove receipt-owned file");
}

} // namespace maintenance
