#include "common/files.h"

#include <fcntl.h>
#include <sys/stat.h>

bool readAll(int fd, std::string& content)
{
    char buffer[16384];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got == 0;
        content.append(buffer, static_cast<std::size_t>(got));
    }
}

std::optional<std::string> readFile(const std::string& path)
{
    const OwnedFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!fd || ::fstat(fd.get(), &status) != 0)
        return std::nullopt;
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return std::nullopt;
    }
    std::string content;
    if (!readAll(fd.get(), content))
        return std::nullopt;
    return content;
}

bool writeAll(int fd, const std::string& content)
{
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t written = ::write(fd, content.data() + done, content.size() - done);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return false;
        done += static_cast<std::size_t>(written);
    }
    return true;
}

bool writeFile(const std::string& path, const std::string& content, mode_t mode)
{
    const OwnedFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
    return fd && ::fchmod(fd.get(), mode) == 0 && writeAll(fd.get(), content);
}
