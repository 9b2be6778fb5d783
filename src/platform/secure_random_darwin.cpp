#include "platform/secure_random.h"

#include <Security/Security.h>

namespace maintenance {

bool fillWithSecureRandom(unsigned char* buffer, std::size_t size)
{
    return SecRandomCopyBytes(kSecRandomDefault, size, buffer) == 0;
}

} // namespace maintenance
