#include "fs/fixed_directory.h"

#include "fs/owner_power.h"
#include "platform/durable_sync.h"
#include "validate/invalid.h"
#include "validate/text_fields.h"

#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <vector>

namespace maintenance {

namespace {

constexpr int directoryFlags = O_RDONLY | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC;
constexpr mode_t createdDirectoryMode = 0755;

std::vector<std::string> components(std::string_view relativePath)
{
    return relativePath.empty() ? std::vector<std::string>() : split(relativePath, '/');
}

bool isPlainName(const std::string& component)
{
    return !component.empty() && component != "." && component != ".." &&
           component.find('\0') == std::string::npos;
}

/// Tells whether root is about to enter a directory that the scope's owner could not read. The owner can give
/// such a directory, which other software left in the home, any name; what lies in it must not come out.
bool isClosedToOwner(uid_t owner, int directory)
{
    constexpr mode_t open = S_IROTH | S_IXOTH;
    struct stat status = {};
    return owner != ::geteuid() &&
           (::fstat(directory, &status) != 0 || (status.st_uid != owner && (status.st_mode & open) != open));
}

/// Opens a scope's root. A final "/" would make the system follow a link in the root's place.
OwnedFd openScopeRoot(std::string root)
{
    while (root.size() > 1 && root.back() == '/')
        root.pop_back();
    return OwnedFd(::open(root.c_str(), directoryFlags));
}

/// Makes one missing component and opens it, owned by the scope's owner and durable.
OwnedFd createComponent(const OwnedFd& parent, const std::string& name, uid_t owner)
{
    const int made = withOwnersPower(
        parent.get(), owner, [&] { return ::mkdirat(parent.get(), name.c_str(), createdDirectoryMode); });
    if (made != 0 && errno != EEXIST)
        throw Invalid("cannot create fixed maintenance directory");
    OwnedFd created = walkOneDirectory(parent.get(), name);
    if (!created)
        throw Invalid("fixed maintenance directory is missing or redirected");
    assignCreatedOwner(parent.get(), created.get(), owner);
    if (!synchronize(parent.get(), Durability::Copy))
        throw std::runtime_error("cannot synchronize fixed metadata directory");
    return created;
}

} // namespace

OwnedFd openFixedDirectory(const std::string& scope, std::string_view relativePath, bool create, bool check)
{
    const ScopeAccount account = scopeAccount(scope);
    OwnedFd current = openScopeRoot(account.root);
    if (!current)
        throw Invalid("scope root is missing or unsafe");
    if (check)
        checkDirectory(current.get(), account.owner);
    for (const std::string& name : components(relativePath)) {
        OwnedFd next = check ? walkOneDirectory(current.get(), name)
                             : enterDirectory(account.owner, current.get(), name);
        if (!next && !(create && errno == ENOENT))
            throw Invalid("fixed maintenance directory is missing or redirected");
        if (!next)
            next = createComponent(current, name, account.owner);
        if (check)
            checkDirectory(next.get(), account.owner);
        current = std::move(next);
    }
    return current;
}

OwnedFd walkOneDirectory(int parent, const std::string& name)
{
    if (!isPlainName(name)) {
        errno = EINVAL;
        return OwnedFd();
    }
    return OwnedFd(::openat(parent, name.c_str(), directoryFlags));
}

OwnedFd enterDirectory(uid_t owner, int parent, const std::string& name)
{
    OwnedFd directory = walkOneDirectory(parent, name);
    if (directory && isClosedToOwner(owner, directory.get())) {
        errno = EACCES;
        return OwnedFd();
    }
    return directory;
}

OwnedFd walkFixedDirectory(const std::string& scope, std::string_view relativePath)
{
    const ScopeAccount account = scopeAccount(scope);
    OwnedFd current = openScopeRoot(account.root);
    for (const std::string& name : components(relativePath)) {
        if (!current)
            break;
        current = enterDirectory(account.owner, current.get(), name);
    }
    return current;
}

void checkDirectory(int descriptor, uid_t owner)
{
    struct stat status = {};
    constexpr mode_t examined = S_IFMT | S_IWGRP | S_IWOTH;
    if (::fstat(descriptor, &status) != 0 || (status.st_mode & examined) != S_IFDIR)
        throw Invalid("maintenance directory ownership or mode is unsafe");
    if (status.st_uid != owner)
        throw Invalid("maintenance directory ownership is unsafe");
}

bool belongsToOwner(uid_t owner, int directory)
{
    struct stat status = {};
    return ::fstat(directory, &status) == 0 && status.st_uid == owner;
}

void assignCreatedOwner(int directory, int descriptor, uid_t owner)
{
    if (owner == ::getuid())
        return;
    struct stat status = {};
    if (::fstat(descriptor, &status) == 0 && status.st_uid == owner)
        return;
    const int given = withOwnersPower(directory, owner,
                                      [&] { return ::fchown(descriptor, owner, static_cast<gid_t>(-1)); });
    if (given != 0)
        throw Invalid("cannot assign fixed maintenance ownership");
}

std::string_view parentOf(std::string_view relativePath)
{
    const std::size_t slash = relativePath.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : relativePath.substr(0, slash);
}

std::string nameOf(std::string_view relativePath)
{
    return std::string(relativePath.substr(relativePath.rfind('/') + 1));
}

} // namespace maintenance
