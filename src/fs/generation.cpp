#include "fs/generation.h"

#include "fs/sha256.h"
#include "platform/secure_random.h"

#include <array>
#include <stdexcept>

namespace maintenance {

std::string generation()
{
    std::array<unsigned char, 32> bytes{};
    if (!fillWithSecureRandom(bytes.data(), bytes.size()))
        throw std::runtime_error("cannot create a durable transaction generation");
    return lowerHex(bytes.data(), bytes.size());
}

} // namespace maintenance
