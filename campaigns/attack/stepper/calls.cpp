#include "stepper/calls.h"

#include <algorithm>
#include <array>
#include <climits>
#include <fcntl.h>
#include <string_view>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

/// What the arguments of a call name: a path, a directory descriptor and a path, a descriptor, or nothing.
enum class Names { Path, PathAt, Descriptor, Nothing };

struct CallType {
    long number;
    const char* name;
    Names names;
};

constexpr CallType types[] = {
#ifdef SYS_open
    {SYS_open, "open", Names::Path},
    {SYS_stat, "stat", Names::Path},
    {SYS_lstat, "lstat", Names::Path},
    {SYS_readlink, "readlink", Names::Path},
    {SYS_mkdir, "mkdir", Names::Path},
    {SYS_unlink, "unlink", Names::Path},
    {SYS_rmdir, "rmdir", Names::Path},
    {SYS_rename, "rename", Names::Path},
    {SYS_chmod, "chmod", Names::Path},
    {SYS_vfork, "vfork", Names::Nothing},
#endif
    {SYS_openat, "openat", Names::PathAt},
    {SYS_newfstatat, "newfstatat", Names::PathAt},
    {SYS_statx, "statx", Names::PathAt},
    {SYS_readlinkat, "readlinkat", Names::PathAt},
    {SYS_mkdirat, "mkdirat", Names::PathAt},
    {SYS_unlinkat, "unlinkat", Names::PathAt},
#ifdef SYS_renameat
    {SYS_renameat, "renameat", Names::PathAt},
#endif
    {SYS_renameat2, "renameat2", Names::PathAt},
    {SYS_fchmodat, "fchmodat", Names::PathAt},
    {SYS_fchownat, "fchownat", Names::PathAt},
    {SYS_fstat, "fstat", Names::Descriptor},
    {SYS_fchown, "fchown", Names::Descriptor},
    {SYS_fchmod, "fchmod", Names::Descriptor},
    {SYS_fsync, "fsync", Names::Descriptor},
    {SYS_fcntl, "fcntl", Names::Descriptor},
    {SYS_getdents64, "getdents64", Names::Descriptor},
    {SYS_read, "read", Names::Descriptor},
    {SYS_write, "write", Names::Descriptor},
    {SYS_clone, "clone", Names::Nothing},
    {SYS_clone3, "clone3", Names::Nothing},
    {SYS_wait4, "wait4", Names::Nothing},
};

const CallType* typeOf(const Call& call)
{
    const auto* type = std::find_if(std::begin(types), std::end(types), [&](const CallType& candidate) {
        return static_cast<std::uint64_t>(candidate.number) == call.number;
    });
    return type == std::end(types) ? nullptr : type;
}

std::string readString(pid_t pid, std::uint64_t address)
{
    // Page by page: what lies behind the string need not be mapped.
    constexpr std::uint64_t page = 4096;
    std::string text;
    while (text.size() < PATH_MAX) {
        std::array<char, page> bytes;
        const std::uint64_t length = page - address % page;
        const iovec local{bytes.data(), length};
        const iovec remote{reinterpret_cast<void*>(address), length};
        const ssize_t count = ::process_vm_readv(pid, &local, 1, &remote, 1, 0);
        if (count <= 0)
            break;
        const std::string_view read(bytes.data(), static_cast<std::size_t>(count));
        const std::size_t end = read.find('\0');
        text.append(read.substr(0, end));
        if (end != std::string_view::npos)
            break;
        address += static_cast<std::uint64_t>(count);
    }
    return text;
}

std::string descriptorTarget(pid_t pid, int descriptor)
{
    const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(descriptor);
    std::array<char, PATH_MAX> target;
    const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
    return length < 0 ? std::string() : std::string(target.data(), static_cast<std::size_t>(length));
}

} // namespace

const char* nameOf(const Call& call)
{
    const CallType* type = typeOf(call);
    return type == nullptr ? nullptr : type->name;
}

std::string pathOf(pid_t pid, const Call& call)
{
    const CallType* type = typeOf(call);
    if (type == nullptr || type->names == Names::Nothing)
        return {};
    if (type->names == Names::Path)
        return readString(pid, call.arguments[0]);
    const int descriptor = static_cast<int>(call.arguments[0]);
    if (type->names == Names::Descriptor)
        return descriptorTarget(pid, descriptor);
    const std::string path = readString(pid, call.arguments[1]);
    if (path.starts_with('/') || descriptor == AT_FDCWD)
        return path;
    const std::string base = descriptorTarget(pid, descriptor);
    return path.empty() ? base : base + "/" + path;
}
