#include "interrupt/stops.h"

#include <cstddef>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <vector>

namespace {

using Filter = std::vector<sock_filter>;

constexpr std::uint32_t offsetOfArgument(std::size_t index)
{
    return static_cast<std::uint32_t>(offsetof(seccomp_data, args) + index * sizeof(std::uint64_t));
}

void load(Filter& filter, std::size_t offset)
{
    filter.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset)));
}

void finish(Filter& filter, bool stop)
{
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, stop ? SECCOMP_RET_TRACE : SECCOMP_RET_ALLOW));
}

/// The two kinds that one call can have: `set` when its argument has one of the bits, else `unset`.
struct TwoKinds {
    std::uint64_t call;
    std::size_t argument;
    std::uint32_t bits;
    Kind set;
    Kind unset;
};

constexpr TwoKinds callsOfTwoKinds[] = {
    {SYS_open, 1, O_CREAT | O_TRUNC, Kind::Change, Kind::Access},
    {SYS_openat, 2, O_CREAT | O_TRUNC, Kind::Change, Kind::Access},
    {SYS_mmap, 3, MAP_ANONYMOUS, Kind::Memory, Kind::Other},
};

void addCallOfTwoKinds(Filter& filter, const TwoKinds& call, const std::set<Kind>& kinds)
{
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(call.call), 0, 4));
    load(filter, offsetOfArgument(call.argument));
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, call.bits, 0, 1));
    finish(filter, kinds.contains(call.set));
    finish(filter, kinds.contains(call.unset));
}

void addCall(Filter& filter, std::uint64_t call)
{
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(call), 0, 1));
    finish(filter, true);
}

Filter filterFor(const std::set<Kind>& kinds)
{
    Filter filter;
    load(filter, offsetof(seccomp_data, arch));
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0));
    finish(filter, false);
    load(filter, offsetof(seccomp_data, nr));
    for (const TwoKinds& call : callsOfTwoKinds)
        addCallOfTwoKinds(filter, call, kinds);
    addCall(filter, SYS_fcntl);
    addCall(filter, SYS_exit_group);
    for (const std::uint64_t call : knownCalls())
        if (kinds.contains(typeOf({call, {}}).kind))
            addCall(filter, call);
    finish(filter, false);
    return filter;
}

} // namespace

bool stopAtCallsOf(const std::set<Kind>& kinds)
{
    Filter filter = filterFor(kinds);
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    return ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}
