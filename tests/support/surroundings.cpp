#include "support/scene.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sys/mount.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace maintenance::rehearsed {

namespace {

constexpr const char* seatFile = "/run/systemd/seats/seat0";
constexpr const char* seatStart = "IS_SEAT0=1\nCAN_TTY=1\nCAN_GRAPHICAL=1\n";
constexpr const char* rulesFile = "/etc/pkgutil-stand-in.conf";
constexpr const char* logFile = "/var/log/pkgutil-stand-in.log";

void check(bool done, const char* what)
{
    if (!done)
        throw std::system_error(errno, std::generic_category(), what);
}

/// Takes the lock and says so through the pipe; ends with the process.
[[noreturn]] void holdLock(const std::filesystem::path& path, int ready)
{
    const int file = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct flock request {};
    request.l_type = F_WRLCK;
    request.l_whence = SEEK_SET;
    const char answer = file >= 0 && ::fcntl(file, F_SETLK, &request) == 0 ? 'y' : 'n';
    if (::write(ready, &answer, 1) == 1)
        for (;;)
            ::pause();
    ::_exit(1);
}

} // namespace

void setConsole(uid_t account)
{
    const std::string id = std::to_string(account);
    writeFile(seatFile, seatStart + ("ACTIVE=1\nACTIVE_UID=" + id + "\nSESSIONS=1\nUIDS=" + id + "\n"));
}

void setNobodyAtConsole() { writeFile(seatFile, seatStart); }

void removeLoginManager() { removeAll("/run/systemd"); }

void instructPkgutil(const std::string& rules)
{
    writeFile("/run/pkgutil-stand-in.calls", "", {rootUid, 0666});
    writeFile(rulesFile, rules);
}

std::vector<std::string> pkgutilCalls()
{
    std::vector<std::string> calls;
    std::ifstream log(logFile);
    for (std::string line; std::getline(log, line);) {
        std::replace(line.begin(), line.end(), '\t', ' ');
        calls.push_back(line);
    }
    return calls;
}

void forgetPkgutilCalls() { writeFile(logFile, "", {rootUid, 0666}); }

HeldLock::HeldLock(const std::string& scope)
{
    const std::filesystem::path lock = lockOf(scope);
    if (!isThere(lock))
        writeFile(lock, "", {ownerOf(scope), 0600});
    std::array<int, 2> ends{};
    check(::pipe2(ends.data(), O_CLOEXEC) == 0, "pipe");
    holder_ = ::fork();
    check(holder_ >= 0, "fork");
    if (holder_ == 0)
        holdLock(lock, ends[1]);
    ::close(ends[1]);
    char answer = 'n';
    const bool answered = ::read(ends[0], &answer, 1) == 1;
    ::close(ends[0]);
    check(answered && answer == 'y', "hold the lock");
}

HeldLock::~HeldLock()
{
    ::kill(holder_, SIGKILL);
    ::waitpid(holder_, nullptr, 0);
}

void mountSmallDisk(const std::filesystem::path& directory, std::size_t bytes, Ownership ownership)
{
    makeDirectories(directory, ownership);
    const std::string options = "size=" + std::to_string(bytes) + ",mode=0755";
    check(::mount("small-disk", directory.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) == 0,
          "mount");
    setOwner(directory, ownership.owner);
    setMode(directory, ownership.mode);
}

void fillDisk(const std::filesystem::path& directory)
{
    const int filler = ::open((directory / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    check(filler >= 0, "create filler");
    std::array<char, 4096> zeros{};
    while (::write(filler, zeros.data(), zeros.size()) > 0) {
    }
    const bool full = errno == ENOSPC;
    ::close(filler);
    check(full, "fill");
}

} // namespace maintenance::rehearsed
