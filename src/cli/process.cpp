#include "cli/process.h"

#include "fs/publish.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace maintenance {

void prepareProcess()
{
    // A file opened as descriptor 0, 1 or 2 would receive what is meant for the terminal. Opened for reading
    // only, so that a result that nobody can receive still fails to be written.
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor)
        if (::fcntl(descriptor, F_GETFD) == -1 && ::open("/dev/null", O_RDONLY) != descriptor)
            ::_exit(70);
    (void)std::signal(SIGCHLD, SIG_DFL);
    // A directory that its owner could not enter would stop every later run.
    constexpr mode_t groupAndOthers = S_IRWXG | S_IRWXO;
    ::umask(::umask(0) & groupAndOthers);
    // Handled rather than ignored, so that no child inherits it.
    (void)std::signal(SIGXFSZ, [](int) {});
}

void writeResult(std::string_view result)
{
    // Only now, so that no child inherits it.
    (void)std::signal(SIGPIPE, SIG_IGN);
    if (!writeAll(STDOUT_FILENO, result))
        throw std::runtime_error("cannot write standard output");
}

void writeMessage(std::string_view message)
{
    (void)std::signal(SIGPIPE, SIG_IGN);
    // One call and no allocation: this may be what is left to do when memory has run out.
    char lineFeed = '\n';
    std::array<iovec, 2> line = {iovec{const_cast<char*>(message.data()), message.size()},
                                 iovec{&lineFeed, 1}};
    [[maybe_unused]] const ssize_t written = ::writev(STDERR_FILENO, line.data(), line.size());
}

} // namespace maintenance
