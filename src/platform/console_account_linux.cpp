#include "platform/console_account.h"

#include "platform/shortage.h"

#include <stdexcept>

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
    const int answer = sd_seat_get_active("seat0", nullptr, &uid);
    if (meansShortage(-answer))
        throw std::runtime_error("cannot resolve the invoking console account");
    return answer < 0 ? std::nullopt : std::optional(uid);
#else
    return std::nullopt;
#endif
}

} // namespace maintenance
