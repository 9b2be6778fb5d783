#include "platform/console_account.h"

#if MAINTENANCE_HAVE_LOGIN_MANAGER
#if __has_include(<systemd/sd-login.h>)
#include <systemd/sd-login.h>
#else
// The client library is part of every Debian system, its header only of the development package.
extern "C" int sd_seat_get_active(const char* seat, char** session, uid_t* uid);
#endif
#endif

namespace maintenance {

std::optional<uid_t> consoleAccountUid()
{
#if MAINTENANCE_HAVE_LOGIN_MANAGER
    uid_t uid = 0;
    if (sd_seat_get_active("seat0", nullptr, &uid) < 0)
        return std::nullopt;
    return uid;
#else
    return std::nullopt;
#endif
}

} // namespace maintenance
