#include "platform/console_account.h"

#include <SystemConfiguration/SystemConfiguration.h>

namespace maintenance {

std::optional<uid_t> consoleAccountUid()
{
    // The store leaves the ids untouched when nobody is known, so they start as "root", which is refused.
    uid_t uid = 0;
    gid_t gid = 0;
    if (const CFStringRef name = SCDynamicStoreCopyConsoleUser(nullptr, &uid, &gid))
        CFRelease(name);
    return uid;
}

} // namespace maintenance
