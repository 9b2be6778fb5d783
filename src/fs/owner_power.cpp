#include "fs/owner_power.h"

#include <cerrno>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace maintenance {

namespace {

bool onlyRootNamesThings(const struct stat& directory)
{
    return directory.st_uid == 0 && (directory.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

[[noreturn]] void endWithoutPower()
{
    constexpr char message[] = "cannot take back the process's own power\n";
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, message, sizeof message - 1);
    ::_exit(70);
}

} // namespace

int withOwnersPower(int directory, uid_t owner, const std::function<int()>& call)
{
    const uid_t own = ::geteuid();
    if (own != 0 || owner == own)
        return call();
    struct stat status = {};
    if (::fstat(directory, &status) != 0)
        return -1;
    if (onlyRootNamesThings(status))
        return call();
    if (::seteuid(owner) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot act as the scope's owner");
    const int result = call();
    const int error = errno;
    if (::seteuid(own) != 0)
        endWithoutPower();
    errno = error;
    return result;
}

} // namespace maintenance
