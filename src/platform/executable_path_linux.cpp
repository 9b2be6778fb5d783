#include "platform/executable_path.h"

#include <system_error>

namespace maintenance {

std::optional<std::filesystem::path> runningExecutablePath()
{
    std::error_code failure;
    const std::filesystem::path path = std::filesystem::read_symlink("/proc/self/exe", failure);
    if (failure || path.empty())
        return std::nullopt;
    return path;
}

} // namespace maintenance
