#include "interrupt/tracing.h"

#include <array>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
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

std::string descriptorLink(pid_t pid, int descriptor)
{
    return "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(descriptor);
}

const char* typeName(mode_t mode)
{
    return S_ISDIR(mode) ? "directory" : S_ISREG(mode) ? "file" : S_ISLNK(mode) ? "link" : "other";
}

void appendHexadecimal(std::string& text, const char* path)
{
    constexpr const char* digits = "0123456789abcdef";
    std::ifstream file(path, std::ios::binary);
    for (auto byte = std::istreambuf_iterator<char>(file); byte != std::istreambuf_iterator<char>(); ++byte) {
        const auto value = static_cast<unsigned char>(*byte);
        text += digits[value / 16];
        text += digits[value % 16];
    }
}

/// Describes what stands at a path, following a link only where `flags` allow it.
std::string describe(const std::string& path, int flags = AT_SYMLINK_NOFOLLOW)
{
    struct stat status = {};
    if (::fstatat(AT_FDCWD, path.c_str(), &status, flags) != 0)
        return {};
    std::array<char, 64> numbers;
    std::snprintf(numbers.data(), numbers.size(), "\t%o\t%u\t%u\t", status.st_mode & 07777u, status.st_uid,
                  status.st_gid);
    std::string text = typeName(status.st_mode) + std::string(numbers.data());
    if (S_ISREG(status.st_mode))
        appendHexadecimal(text, path.c_str());
    return text;
}

/// A descriptor is read through a name of its own, which shares no offset with it.
std::string describeDescriptor(pid_t pid, int descriptor)
{
    return describe(descriptorLink(pid, descriptor), 0);
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
    case Names::Output:
        return descriptorTarget(pid, descriptor(2));
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

std::string stateAfter(pid_t pid, const Call& call, Names names, std::int64_t result)
{
    const auto descriptor = [&](std::size_t i) {
        return describeDescriptor(pid, static_cast<int>(call.arguments[i]));
    };
    const auto path = [&](std::size_t i) {
        return describe(
            pathAt(pid, static_cast<int>(call.arguments[i]), readString(pid, call.arguments[i + 1])));
    };
    if (opensFile(call))
        return describeDescriptor(pid, static_cast<int>(result));
    switch (names) {
    case Names::Descriptor:
        return descriptor(0);
    case Names::Output:
        return descriptor(2);
    case Names::PathAt:
        return path(0);
    case Names::TwoPathsAt:
        return path(2);
    case Names::Path:
        return describe(readString(pid, call.arguments[0]));
    case Names::TwoPaths:
        return describe(readString(pid, call.arguments[1]));
    case Names::Nothing:
        break;
    }
    return {};
}

std::string descriptorTarget(pid_t pid, int descriptor)
{
    const std::string link = descriptorLink(pid, descriptor);
    std::array<char, PATH_MAX> target;
    const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
    return length < 0 ? "?" : std::string(target.data(), static_cast<std::size_t>(length));
}
