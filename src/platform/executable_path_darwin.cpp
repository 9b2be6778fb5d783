#include "platform/executable_path.h"

#include <cstdint>
#include <mach-o/dyld.h>
#include <vector>

namespace maintenance {

std::optional<std::filesystem::path> runningExecutablePath()
{
    std::uint32_t size = 0;
    if (::_NSGetExecutablePath(nullptr, &size) != -1 || size == 0)
        return std::nullopt;
    std::vector<char> buffer(size, '\0');
    if (::_NSGetExecutablePath(buffer.data(), &size) != 0)
        return std::nullopt;
    return std::filesystem::path(buffer.data());
}

} // namespace maintenance
