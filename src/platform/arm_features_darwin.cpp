#include "platform/arm_features.h"

namespace maintenance {

bool armHasSha256()
{
    // Every Mac with an ARM processor has had them, from the first one on.
#if defined(__aarch64__)
    return true;
#else
    return false;
#endif
}

} // namespace maintenance
