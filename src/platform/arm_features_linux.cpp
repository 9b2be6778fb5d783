#include "platform/arm_features.h"

#if defined(__aarch64__)

#include <asm/hwcap.h>
#include <sys/auxv.h>

namespace maintenance {

bool armHasSha256() { return (::getauxval(AT_HWCAP) & HWCAP_SHA2) != 0; }

} // namespace maintenance

#else

namespace maintenance {

bool armHasSha256() { return false; }

} // namespace maintenance

#endif
