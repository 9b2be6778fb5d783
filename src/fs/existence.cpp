#include "fs/existence.h"

#include <cerrno>
#include <system_error>

namespace maintenance {

bool meansAbsence(int error) { return error == ENOENT || error == ENOTDIR; }

std::optional<struct stat> linkStatus(const std::filesystem::path& path)
{
    struct stat status = {};
    if (::lstat(path.c_str(), &status) == 0)
        return status;
    if (meansAbsence(errno))
        return std::nullopt;
    throw std::filesystem::filesystem_error("cannot examine a fixed path", path,
                                            std::error_code(errno, std::generic_category()));
}

bool somethingStandsAt(const std::filesystem::path& path) { return linkStatus(path).has_value(); }

} // namespace maintenance
