#include "platform/durable_sync.h"

#include <fcntl.h>
#include <unistd.h>

namespace maintenance {

bool synchronize(int descriptor, Durability durability)
{
    // fsync leaves data in the drive's cache; some file systems lack the stronger request, and then
    // fsync's own result is what counts.
    if (durability == Durability::Record && ::fcntl(descriptor, F_FULLFSYNC) == 0)
        return true;
    return ::fsync(descriptor) == 0;
}

} // namespace maintenance
