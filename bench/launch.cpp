// Runs one command, its output to the standard error stream, and prints what it took as one line of JSON.
// A process takes over the peak of memory of the one that started it; this one is small.

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

double seconds(const timespec& time)
{
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

double now(clockid_t clock)
{
    timespec time{};
    ::clock_gettime(clock, &time);
    return seconds(time);
}

/// A count from /proc/PID/io, of the process alone.
long long counted(pid_t pid, const char* name)
{
    const std::string path = "/proc/" + std::to_string(pid) + "/io";
    FILE* file = std::fopen(path.c_str(), "re");
    std::array<char, 64> line{};
    long long count = -1;
    while (file != nullptr && std::fgets(line.data(), line.size(), file) != nullptr)
        if (std::strncmp(line.data(), name, std::strlen(name)) == 0)
            count = std::atoll(line.data() + std::strlen(name));
    if (file != nullptr)
        std::fclose(file);
    return count;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
        return 64;
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    pid_t pid = -1;
    const double begin = now(CLOCK_MONOTONIC);
    if (::posix_spawn(&pid, argv[1], &actions, nullptr, argv + 1, environ) != 0)
        return 126;
    // The process must still be there when it is asked about; what wait4 says includes its children.
    siginfo_t ended{};
    ::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT);
    const double wall = now(CLOCK_MONOTONIC) - begin;
    clockid_t clock{};
    ::clock_getcpuclockid(pid, &clock);
    const double own = now(clock);
    const long long readBytes = counted(pid, "rchar:");
    const long long writtenBytes = counted(pid, "wchar:");
    int status = 0;
    rusage usage{};
    ::wait4(pid, &status, 0, &usage);
    std::printf("{\"seconds\": %.9f, \"own\": %.9f, \"peak\": %ld, \"read\": %lld, \"written\": %lld, "
                "\"status\": %d}\n",
                wall, own, usage.ru_maxrss * 1024, readBytes, writtenBytes,
                WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    return 0;
}
