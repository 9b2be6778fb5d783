#include "fs/settling.h"

#include "fs/fixed_directory.h"
#include "platform/durable_sync.h"

#include <stdexcept>

namespace maintenance {

void settleScope(const std::string& scope)
{
    const OwnedFd library = openFixedDirectory(scope, "Library", false, false);
    if (!synchronize(library.get(), Durability::Record))
        throw std::runtime_error("cannot synchronize fixed metadata directory");
}

} // namespace maintenance
