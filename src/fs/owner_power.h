#pragma once

#include <functional>
#include <sys/types.h>

namespace maintenance {

/// Runs `call`, one system call inside the open directory `directory`, with the effective user id of
/// `owner` when this process is root and the directory belongs to that account. What such a call creates is
/// rightly owned from its first moment, and a link planted for root finds no root. In any other directory
/// only root can exchange names, and the call keeps the process's own power.
///
/// directory  borrowed
/// returns    what `call` returned, errno as it left it; -1 and errno without a call when the directory's
///            owner cannot be told
/// throws     std::system_error when the account's power cannot be taken on. If root's power cannot be
///            taken back, the process says so and ends with status 70.
int withOwnersPower(int directory, uid_t owner, const std::function<int()>& call);

} // namespace maintenance
