#include "cli/process.h"

#include "fs/publish.h"

#include <csignal>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace maintenance {

void prepareProcess()
{
    // A file opened as descriptor 0, 1 or 2 would receive what is meant for the terminal. Opened for reading
    // only, so that a result that nobody can receive still fails to be written.
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor)
        if (::fcntl(descriptor, F_GETFD) == -1 && ::open("/dev/null", O_RDONLY) != descriptor)
            ::_exit(70);
    std::signal(SIGCHLD, SIG_DFL);
    std::signal(SIGXFSZ, SIG_IGN);
}

void writeResult(std::string_view result)
{
    // Only now, so that no child inherits it.
    std::signal(SIGPIPE, SIG_IGN);
    if (!writeAll(STDOUT_FILENO, result))
        throw std::runtime_error("cannot write standard output");
}

void writeMessage(std::string_view message)
{
    std::signal(SIGPIPE, SIG_IGN);
    writeAll(STDERR_FILENO, std::string(message) + "\n");
}

} // namespace maintenance
