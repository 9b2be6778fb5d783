#pragma once

#include <functional>
#include <sys/types.h>

namespace maintenance {

/// Runs `call`, one system call inside the open directory `directory`, with the effective user id of
/// `owner` when this process is root. What such a call creates is rightly owned from its first moment, and
/// what an account exchanges or links for root finds no root. Only in a directory where nobody but root can
/// exchange names does the call keep the process's own power.
///
/// directory  borrowed
/// returns    what `call` returned, errno as it left it; -1 and errno without a call when the directory
///            cannot be examined
/// throws     std::system_error when the account's power cannot be taken on. If root's power cannot be
///            taken back, the process says so and ends with status 70.
int withOwnersPower(int directory, uid_t owner, const std::function<int()>& call);

} // namespace maintenance
