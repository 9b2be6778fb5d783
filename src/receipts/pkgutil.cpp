#include "receipts/pkgutil.h"

#include "fs/owned_fd.h"
#include "validate/invalid.h"

#include <array>
#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

namespace maintenance {

namespace {

constexpr const char* pkgutilPath = "/usr/sbin/pkgutil";
constexpr std::int32_t abnormalStatus = 70;
constexpr std::size_t readingChunk = 4096;

struct Pipe {
    OwnedFd readEnd;
    OwnedFd writeEnd;
};

Pipe createPipe()
{
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0)
        throw Invalid("cannot create fixed pkgutil output pipe");
    return {OwnedFd(ends[0]), OwnedFd(ends[1])};
}

/// Starts the command with both its outputs on the pipe; returns what posix_spawn returned.
int spawn(const Pipe& pipe, const std::vector<std::string>& arguments, pid_t& child)
{
    std::vector<char*> argv = {const_cast<char*>(pkgutilPath)};
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    int failure = ::posix_spawn_file_actions_init(&actions);
    if (failure != 0)
        return failure;
    failure = ::posix_spawn_file_actions_adddup2(&actions, pipe.writeEnd.get(), STDOUT_FILENO);
    if (failure == 0)
        failure = ::posix_spawn_file_actions_adddup2(&actions, pipe.writeEnd.get(), STDERR_FILENO);
    if (failure == 0)
        failure = ::posix_spawn_file_actions_addclose(&actions, pipe.readEnd.get());
    if (failure == 0)
        failure = ::posix_spawn(&child, pkgutilPath, &actions, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    return failure;
}

/// Appends everything from `descriptor` to `output`; false when it ended before the end of file. An
/// interrupted read goes on: a listing cut short would read like packages that are gone.
bool readToEnd(int descriptor, std::string& output)
{
    std::array<char, readingChunk> chunk;
    for (;;) {
        const ssize_t count = ::read(descriptor, chunk.data(), chunk.size());
        if (count == 0)
            return true;
        if (count > 0)
            output.append(chunk.data(), static_cast<std::size_t>(count));
        else if (errno != EINTR)
            return false;
    }
}

int waitFor(pid_t child)
{
    int status = 0;
    while (::waitpid(child, &status, 0) < 0)
        if (errno != EINTR)
            throw Invalid("cannot wait for fixed pkgutil");
    return status;
}

} // namespace

PkgutilResult pkgutil(const std::vector<std::string>& arguments)
{
    Pipe pipe = createPipe();
    pid_t child = -1;
    const int failure = spawn(pipe, arguments, child);
    pipe.writeEnd.close();
    if (failure != 0)
        throw Invalid("fixed /usr/sbin/pkgutil is unavailable");

    PkgutilResult result{abnormalStatus, {}};
    const bool whole = readToEnd(pipe.readEnd.get(), result.output);
    pipe.readEnd.close();
    int status = waitFor(child);
    if (whole && WIFEXITED(status))
        result.status = WEXITSTATUS(status);
    return result;
}

} // namespace maintenance
