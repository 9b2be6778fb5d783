#pragma once

#include <cerrno>

namespace maintenance {

/// Tells whether an errno value says that the machine could not answer just now, rather than that it answered
/// "no".
inline bool meansShortage(int error)
{
    return error == EIO || error == EMFILE || error == ENFILE || error == ENOMEM || error == EINTR;
}

} // namespace maintenance
