#pragma once

#include "support/ending.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <functional>
#include <grp.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <map>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

/// Carrying out a call in a child process: as another account, or with chosen system calls stopped on their
/// way into the kernel, so that a test can change the disk at exactly that moment, let the system call fail,
/// or end the process there.
namespace maintenance::rehearsed {

/// A system call of the child that waits for a decision.
struct SystemCall {
    long number = 0;
    std::array<std::uint64_t, 6> arguments{};
    /// How many calls of this number have come so far, this one included.
    int count = 0;
    pid_t process = 0;

    /// The text that an argument points to.
    std::string text(std::size_t argument) const
    {
        std::string read;
        for (std::uint64_t address = arguments.at(argument); read.size() < 4096; ++address) {
            char byte = 0;
            iovec here{&byte, 1};
            iovec there{reinterpret_cast<void*>(address), 1};
            if (::process_vm_readv(process, &here, 1, &there, 1, 0) != 1 || byte == '\0')
                break;
            read += byte;
        }
        return read;
    }

    /// Tells whether this is the call `wanted` on the name `name` in an open directory.
    bool is(long wanted, const std::string& name) const { return number == wanted && text(1) == name; }
};

/// What becomes of a stopped system call: it goes on (0), it fails with an error number, or the child is
/// killed (`killChild`).
using Decide = std::function<int(const SystemCall&)>;
constexpr int killChild = -1;

namespace detail {

inline void requireDone(bool done, const char* what)
{
    if (!done)
        throw std::system_error(errno, std::generic_category(), what);
}

/// Makes the system calls in `stopped` wait for the holder of the returned descriptor.
inline int stopSystemCalls(const std::vector<long>& stopped)
{
    std::vector<sock_filter> filter = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const long number : stopped) {
        filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(number), 0, 1));
        filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
    }
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        return -1;
    return static_cast<int>(
        ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program));
}

inline bool sendDescriptor(int channel, int descriptor)
{
    char byte = 'd';
    iovec content{&byte, 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    *reinterpret_cast<int*>(CMSG_DATA(header)) = descriptor;
    return ::sendmsg(channel, &message, 0) == 1;
}

inline int receiveDescriptor(int channel)
{
    char byte = 0;
    iovec content{&byte, 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    requireDone(::recvmsg(channel, &message, MSG_CMSG_CLOEXEC) == 1, "receive the listener");
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    requireDone(header != nullptr, "find the listener");
    return *reinterpret_cast<const int*>(CMSG_DATA(header));
}

/// Answers stopped system calls until the child has none left to make. Those that follow its report go on.
inline void decideSystemCalls(int listener, int channel, pid_t child, const Decide& decide)
{
    std::map<long, int> counts;
    std::array<pollfd, 2> waiting{{{listener, POLLIN, 0}, {channel, POLLIN, 0}}};
    for (;;) {
        if (::poll(waiting.data(), waiting.size(), 30000) <= 0) {
            ::kill(child, SIGKILL);
            throw std::runtime_error("the child process hangs");
        }
        if (waiting[1].fd >= 0 && waiting[1].revents != 0) {
            waiting[1].fd = -1;
            continue;
        }
        if ((waiting[0].revents & POLLIN) == 0)
            return;
        seccomp_notif request{};
        if (::ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &request) != 0)
            continue;
        SystemCall call{request.data.nr, {}, ++counts[request.data.nr], static_cast<pid_t>(request.pid)};
        std::copy(std::begin(request.data.args), std::end(request.data.args), call.arguments.begin());
        const bool isReported = waiting[1].fd < 0;
        const int decision = isReported ? 0 : decide(call);
        if (decision == killChild) {
            ::kill(child, SIGKILL);
            return;
        }
        seccomp_notif_resp response{};
        response.id = request.id;
        response.error = -decision;
        response.flags = decision == 0 ? SECCOMP_USER_NOTIF_FLAG_CONTINUE : 0;
        ::ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &response);
    }
}

inline void becomeAccount(uid_t account)
{
    if (account == rootUid)
        return;
    const bool became = ::setgroups(0, nullptr) == 0 && ::setgid(staffGid) == 0 && ::setuid(account) == 0;
    if (!became)
        ::_exit(99);
}

extern "C" void __gcov_dump() __attribute__((weak));

/// Leaves as if the process had never been, but for the counts of executed lines where they are kept.
[[noreturn]] inline void leave()
{
    if (__gcov_dump != nullptr)
        __gcov_dump();
    ::_exit(0);
}

/// The child's part: does not return. The ending is sent by a system call that no test stops.
[[noreturn]] inline void runChild(int channel, uid_t account, const std::vector<long>& stopped,
                                  const std::function<std::string()>& call)
{
    becomeAccount(account);
    if (!stopped.empty() && !sendDescriptor(channel, stopSystemCalls(stopped)))
        ::_exit(98);
    const Ending ending = endingOf(call);
    const std::string report = ending.kind + '\n' + ending.text;
    for (std::size_t sent = 0; sent < report.size();) {
        const ssize_t count = ::send(channel, report.data() + sent, report.size() - sent, 0);
        if (count <= 0)
            ::_exit(97);
        sent += static_cast<std::size_t>(count);
    }
    leave();
}

inline std::string receiveAll(int channel)
{
    std::string text;
    std::array<char, 4096> chunk;
    for (;;) {
        pollfd waiting{channel, POLLIN, 0};
        if (::poll(&waiting, 1, 30000) <= 0)
            return "hangs\n";
        const ssize_t count = ::recv(channel, chunk.data(), chunk.size(), 0);
        if (count <= 0)
            return text;
        text.append(chunk.data(), static_cast<std::size_t>(count));
    }
}

} // namespace detail

/// Carries out `call` in a child process of `account` whose system calls `stopped` are decided by `decide`,
/// and tells how it ended; kind "signal" with its number when a signal ended the child.
inline Ending inChild(uid_t account, const std::vector<long>& stopped, const Decide& decide,
                      const std::function<std::string()>& call)
{
    std::array<int, 2> channel{};
    detail::requireDone(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel.data()) == 0,
                        "socketpair");
    const pid_t child = ::fork();
    detail::requireDone(child >= 0, "fork");
    if (child == 0) {
        ::close(channel[0]);
        detail::runChild(channel[1], account, stopped, call);
    }
    ::close(channel[1]);
    if (!stopped.empty()) {
        const int listener = detail::receiveDescriptor(channel[0]);
        detail::decideSystemCalls(listener, channel[0], child, decide);
        ::close(listener);
    }
    const std::string report = detail::receiveAll(channel[0]);
    ::close(channel[0]);
    if (report == "hangs\n")
        ::kill(child, SIGKILL);
    int status = 0;
    detail::requireDone(::waitpid(child, &status, 0) == child, "waitpid");
    if (WIFSIGNALED(status))
        return {"signal", std::to_string(WTERMSIG(status))};
    const std::size_t end = report.find('\n');
    return {report.substr(0, end), end == std::string::npos ? "" : report.substr(end + 1)};
}

/// As another account.
template <typename Call> Ending asAccount(uid_t account, const Call& call)
{
    return inChild(account, {}, {}, [&call] { return resultOf(call); });
}

/// As root, with system calls stopped.
template <typename Call>
Ending stopping(const std::vector<long>& stopped, const Decide& decide, const Call& call)
{
    return inChild(rootUid, stopped, decide, [&call] { return resultOf(call); });
}

/// As root, with the `nth` system call of a number failing.
template <typename Call> Ending failing(long number, int nth, int error, const Call& call)
{
    return stopping(
        {number}, [=](const SystemCall& made) { return made.count == nth ? error : 0; }, call);
}

} // namespace maintenance::rehearsed
