#pragma once

#include "support/child.h"

#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

/// Calls that meet trouble on their way: a system call that fails, a disk that changes between two system
/// calls, a process that is killed. Only the system calls of the call itself are decided and counted, and
/// every such call must leave as many descriptors open as it found.
namespace maintenance::rehearsed {

namespace detail {

/// Carries out `call` between two marks that the deciding process sees.
template <typename Call> std::string betweenMarks(const Call& call)
{
    std::string result;
    std::exception_ptr thrown;
    const std::size_t before = openDescriptors();
    ::syscall(SYS_getppid);
    try {
        result = resultOf(call);
    } catch (...) {
        thrown = std::current_exception();
    }
    ::syscall(SYS_getppid);
    if (openDescriptors() != before)
        throw std::logic_error("the number of open descriptors has changed");
    if (thrown)
        std::rethrow_exception(thrown);
    return result;
}

} // namespace detail

/// Carries out `call` as `account`, with its system calls `stopped` decided by `decide`.
template <typename Call>
Ending duringAs(uid_t account, std::vector<long> stopped, const Decide& decide, const Call& call)
{
    stopped.push_back(SYS_getppid);
    int marks = 0;
    std::map<long, int> counts;
    const auto decideOwn = [&](SystemCall made) {
        if (made.number == SYS_getppid)
            ++marks;
        if (made.number == SYS_getppid || marks != 1)
            return 0;
        made.count = ++counts[made.number];
        return decide(made);
    };
    return inChild(account, stopped, decideOwn, [&call] { return detail::betweenMarks(call); });
}

/// Carries out `call` as root, with its system calls `stopped` decided by `decide`.
template <typename Call>
Ending during(const std::vector<long>& stopped, const Decide& decide, const Call& call)
{
    return duringAs(rootUid, stopped, decide, call);
}

/// Carries out `call` as root; its `nth` system call of a number fails.
template <typename Call> Ending failingAt(long number, int nth, int error, const Call& call)
{
    return during(
        {number}, [=](const SystemCall& made) { return made.count == nth ? error : 0; }, call);
}

/// Carries out `call` as often as it makes system calls of the numbers `stopped`; each time the next one of
/// them meets `fate`. `examine` learns the ending and which call it was.
template <typename Call, typename Examine>
void eachMeeting(int fate, const std::vector<long>& stopped, const Call& call, const Examine& examine)
{
    for (int nth = 1;; ++nth) {
        int made = 0;
        SystemCall met;
        const Ending ending = during(
            stopped,
            [&](const SystemCall& next) {
                if (++made != nth)
                    return 0;
                met = next;
                return fate;
            },
            call);
        if (made < nth)
            return;
        examine(ending, met);
    }
}

/// The system calls by which a call can change the disk or its own power.
inline std::vector<long> changingCalls()
{
    return {SYS_openat, SYS_mkdirat,  SYS_write,    SYS_fsync,    SYS_fchown,
            SYS_fchmod, SYS_renameat, SYS_unlinkat, SYS_setresuid};
}

/// The system calls by which a call looks at the disk.
inline std::vector<long> lookingCalls()
{
    return {SYS_newfstatat, SYS_fstat, SYS_read, SYS_getdents64, SYS_fcntl};
}

/// Tells whether a call asks for the status of an open file; some C libraries make it by name.
inline bool isFstat(const SystemCall& call)
{
    return call.number == SYS_fstat || (call.number == SYS_newfstatat && call.text(1).empty());
}

/// The path of the open file that a call's first argument names.
inline std::string openPath(const SystemCall& call)
{
    std::error_code ignored;
    return std::filesystem::read_symlink("/proc/" + std::to_string(call.process) + "/fd/" +
                                             std::to_string(static_cast<int>(call.arguments[0])),
                                         ignored)
        .native();
}

/// The effective user id with which a call is made.
inline uid_t callersPower(const SystemCall& call)
{
    std::ifstream status("/proc/" + std::to_string(call.process) + "/status");
    for (std::string word; status >> word;)
        if (word == "Uid:") {
            uid_t real = 0;
            uid_t effective = 0;
            status >> real >> effective;
            return effective;
        }
    throw std::runtime_error("the calling process is gone");
}

/// A refusal, or the word of a system that could not tell just then for whom the call acts.
inline bool isRefusalOrAccountFailure(const Ending& ending)
{
    return ending.kind == "Invalid" ||
           ending == runtimeError("cannot resolve the invoking console account") ||
           ending == runtimeError("cannot resolve the invoking account home");
}

/// Changes the disk once, at the first system call for which `when` is true.
template <typename When, typename Change> Decide once(const When& when, const Change& change)
{
    return [when, change, done = false](const SystemCall& call) mutable {
        if (!done && when(call)) {
            done = true;
            change();
        }
        return 0;
    };
}

} // namespace maintenance::rehearsed
