#include "interrupt/tracing.h"

#include <array>
#include <climits>
#include <fcntl.h>
#include <sys/user.h>
#include <unistd.h>

namespace {

user_regs_struct registersOf(pid_t pid)
{
    user_regs_struct registers{};
    if (::ptrace(PTRACE_GETREGS, pid, nullptr, &registers) != 0)
        failed("cannot read the registers");
    return registers;
}

void setRegisters(pid_t pid, user_regs_struct registers)
{
    if (::ptrace(PTRACE_SETREGS, pid, nullptr, &registers) != 0)
        failed("cannot write the registers");
}

std::string readString(pid_t pid, std::uint64_t address)
{
    std::string text;
    for (; text.size() < PATH_MAX; address += sizeof(long)) {
        errno = 0;
        const long word = ::ptrace(PTRACE_PEEKDATA, pid, reinterpret_cast<void*>(address), nullptr);
        if (errno != 0)
            return text;
        std::array<char, sizeof word> bytes;
        std::memcpy(bytes.data(), &word, sizeof word);
        for (const char byte : bytes) {
            if (byte == '\0')
                return text;
            text += static_cast<unsigned char>(byte) < ' ' ? '?' : byte;
        }
    }
    return text;
}

std::string pathAt(pid_t pid, int directory, const std::string& path)
{
    if (path.starts_with('/') || directory == AT_FDCWD)
        return path;
    const std::string base = descriptorTarget(pid, directory);
    return path.empty() ? base : base + "/" + path;
}

} // namespace

__ptrace_syscall_info callInfo(pid_t pid)
{
    __ptrace_syscall_info info{};
    void* size = reinterpret_cast<void*>(sizeof info);
    if (::ptrace(static_cast<__ptrace_request>(PTRACE_GET_SYSCALL_INFO), pid, size, &info) <= 0)
        failed("cannot examine a system call");
    return info;
}

void skipCall(pid_t pid)
{
    user_regs_struct registers = registersOf(pid);
    registers.orig_rax = static_cast<unsigned long long>(-1);
    setRegisters(pid, registers);
}

void setArgument(pid_t pid, std::size_t index, std::uint64_t value)
{
    user_regs_struct registers = registersOf(pid);
    const std::array<unsigned long long*, 6> places = {&registers.rdi, &registers.rsi, &registers.rdx,
                                                       &registers.r10, &registers.r8,  &registers.r9};
    *places.at(index) = value;
    setRegisters(pid, registers);
}

void setResult(pid_t pid, std::int64_t value)
{
    user_regs_struct registers = registersOf(pid);
    registers.rax = static_cast<unsigned long long>(value);
    setRegisters(pid, registers);
}

std::string subjectOf(pid_t pid, const Call& call, Names names)
{
    const auto text = [&](std::size_t i) { return readString(pid, call.arguments[i]); };
    const auto descriptor = [&](std::size_t i) { return static_cast<int>(call.arguments[i]); };
    switch (names) {
    case Names::Nothing:
        return {};
    case Names::Descriptor:
        return descriptorTarget(pid, descriptor(0));
    case Names::Path:
        return text(0);
    case Names::PathAt:
        return pathAt(pid, descriptor(0), text(1));
    case Names::TwoPaths:
        return text(0) + " -> " + text(1);
    case Names::TwoPathsAt:
        break;
    }
    return pathAt(pid, descriptor(0), text(1)) + " -> " + pathAt(pid, descriptor(2), text(3));
}

std::string descriptorTarget(pid_t pid, int descriptor)
{
    const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(descriptor);
    std::array<char, PATH_MAX> target;
    const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
    return length < 0 ? "?" : std::string(target.data(), static_cast<std::size_t>(length));
}
