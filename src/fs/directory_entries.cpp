#include "fs/directory_entries.h"

#include "fs/owned_fd.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>

namespace maintenance {

std::optional<std::vector<std::string>> directoryEntries(int directory)
{
    // A duplicate shares its offset with the original, which an earlier listing has moved.
    OwnedFd duplicate(::fcntl(directory, F_DUPFD_CLOEXEC, 0));
    if (!duplicate)
        return std::nullopt;
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(duplicate.get()), ::closedir);
    if (!stream)
        return std::nullopt;
    (void)duplicate.release();
    ::rewinddir(stream.get());

    std::vector<std::string> names;
    for (;;) {
        errno = 0;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread, and a stream of its own.
        const dirent* entry = ::readdir(stream.get());
        if (entry == nullptr)
            break;
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    if (errno != 0)
        return std::nullopt;
    return names;
}

} // namespace maintenance
