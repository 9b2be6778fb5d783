#include "platform/secure_random.h"

#include <sys/random.h>

namespace maintenance {

bool fillWithSecureRandom(unsigned char* buffer, std::size_t size)
{
    // Requests of up to 256 bytes are never cut short once the generator is seeded.
    std::size_t filled = 0;
    while (filled < size) {
        const ssize_t count = ::getrandom(buffer + filled, size - filled, 0);
        if (count <= 0)
            return false;
        filled += static_cast<std::size_t>(count);
    }
    return true;
}

} // namespace maintenance
