#include "fs/locks.h"

#include "fs/fixed_directory.h"
#include "fs/fixed_file.h"
#include "fs/held_locks.h"
#include "fs/owner_power.h"
#include "validate/invalid.h"

#include <algorithm>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>

namespace maintenance {

namespace {

constexpr const char* lockName = "maintenance.lock";
constexpr mode_t lockMode = 0600;
constexpr int openFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

bool isSafeLock(const struct stat& status)
{
    return S_ISREG(status.st_mode) && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0 && status.st_nlink == 1;
}

/// Returns the status of the lock file in `directory`, or nothing when there is none.
std::optional<struct stat> examineLock(int directory)
{
    struct stat status = {};
    if (::fstatat(directory, lockName, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT)
            return std::nullopt;
        throw Invalid("maintenance lock is unsafe");
    }
    if (!isSafeLock(status))
        throw Invalid("maintenance lock is unsafe");
    return status;
}

/// Creates the lock file; empty when another run created it first.
OwnedFd createLock(int directory, uid_t owner)
{
    OwnedFd file(withOwnersPower(directory, owner, [&] {
        return ::openat(directory, lockName, openFlags | O_CREAT | O_EXCL, lockMode);
    }));
    if (!file && errno == EEXIST)
        return file;
    if (!file)
        throw Invalid("cannot open the maintenance lock");
    assignCreatedOwner(directory, file.get(), owner);
    if (::fchmod(file.get(), lockMode) != 0)
        throw Invalid("cannot open the maintenance lock");
    return file;
}

OwnedFd openLock(int directory, const std::string& scope)
{
    if (!examineLock(directory)) {
        if (OwnedFd created = createLock(directory, scopeOwner(scope)))
            return created;
        examineLock(directory);
    }
    OwnedFd file(::openat(directory, lockName, openFlags));
    if (!file)
        throw Invalid("cannot open the maintenance lock");
    return file;
}

/// Requires the open lock file to be the scope's own.
struct stat requireOwnLock(const OwnedFd& file, const std::string& scope)
{
    struct stat status = {};
    if (::fstat(file.get(), &status) != 0 || !isSafeLock(status) || status.st_uid != scopeOwner(scope))
        throw Invalid("maintenance lock is unsafe");
    return status;
}

void takeLock(const OwnedFd& file)
{
    struct flock request = {};
    request.l_type = F_WRLCK;
    request.l_whence = SEEK_SET;
    if (::fcntl(file.get(), F_SETLK, &request) != 0)
        throw Invalid("another maintenance transaction is active");
}

OwnedFd acquire(const std::string& scope)
{
    const OwnedFd directory = openFixedDirectory(scope, maintenanceDirectory, true, true);
    OwnedFd file = openLock(directory.get(), scope);
    const struct stat own = requireOwnLock(file, scope);
    takeLock(file);
    // A lock on a file that no longer bears the name would exclude nobody.
    const std::optional<struct stat> named = examineLock(directory.get());
    if (!named || !sameFile(*named, own))
        throw Invalid("maintenance lock is unsafe");
    rememberHeldLock(own);
    return file;
}

void release(std::vector<OwnedFd>& held)
{
    while (!held.empty())
        held.pop_back();
    forgetHeldLocks();
}

} // namespace

Locks::Locks(std::vector<std::string> scopes)
{
    std::sort(scopes.begin(), scopes.end());
    scopes.erase(std::unique(scopes.begin(), scopes.end()), scopes.end());
    held_.reserve(scopes.size());
    try {
        for (const std::string& scope : scopes)
            held_.push_back(acquire(scope));
    } catch (...) {
        release(held_);
        throw;
    }
}

Locks::~Locks() { release(held_); }

} // namespace maintenance
