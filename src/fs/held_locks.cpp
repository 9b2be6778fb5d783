#include "fs/held_locks.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace maintenance {

namespace {

using Identity = std::pair<dev_t, ino_t>;

std::vector<Identity>& heldLocks()
{
    static std::vector<Identity> held;
    return held;
}

} // namespace

void rememberHeldLock(const struct stat& status) { heldLocks().emplace_back(status.st_dev, status.st_ino); }

void forgetHeldLocks() { heldLocks().clear(); }

bool isHeldLock(const struct stat& status)
{
    const std::vector<Identity>& held = heldLocks();
    return std::find(held.begin(), held.end(), Identity(status.st_dev, status.st_ino)) != held.end();
}

} // namespace maintenance
