#include "interrupt/calls.h"

#include <cerrno>
#include <fcntl.h>
#include <map>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

const std::map<std::uint64_t, CallType>& table()
{
    static const std::map<std::uint64_t, CallType> calls = {
        {SYS_open, {"open", Kind::Access, Names::Path}},
        {SYS_openat, {"openat", Kind::Access, Names::PathAt}},
        {SYS_creat, {"creat", Kind::Change, Names::Path}},
        {SYS_mkdir, {"mkdir", Kind::Change, Names::Path}},
        {SYS_mkdirat, {"mkdirat", Kind::Change, Names::PathAt}},
        {SYS_mknod, {"mknod", Kind::Change, Names::Path}},
        {SYS_mknodat, {"mknodat", Kind::Change, Names::PathAt}},
        {SYS_rename, {"rename", Kind::Change, Names::TwoPaths}},
        {SYS_renameat, {"renameat", Kind::Change, Names::TwoPathsAt}},
        {SYS_renameat2, {"renameat2", Kind::Change, Names::TwoPathsAt}},
        {SYS_unlink, {"unlink", Kind::Change, Names::Path}},
        {SYS_unlinkat, {"unlinkat", Kind::Change, Names::PathAt}},
        {SYS_rmdir, {"rmdir", Kind::Change, Names::Path}},
        {SYS_link, {"link", Kind::Change, Names::TwoPaths}},
        {SYS_linkat, {"linkat", Kind::Change, Names::TwoPathsAt}},
        {SYS_symlink, {"symlink", Kind::Change, Names::TwoPaths}},
        {SYS_symlinkat, {"symlinkat", Kind::Change, Names::Path}},
        {SYS_chmod, {"chmod", Kind::Change, Names::Path}},
        {SYS_fchmod, {"fchmod", Kind::Change, Names::Descriptor}},
        {SYS_fchmodat, {"fchmodat", Kind::Change, Names::PathAt}},
        {SYS_chown, {"chown", Kind::Change, Names::Path}},
        {SYS_lchown, {"lchown", Kind::Change, Names::Path}},
        {SYS_fchown, {"fchown", Kind::Change, Names::Descriptor}},
        {SYS_fchownat, {"fchownat", Kind::Change, Names::PathAt}},
        {SYS_truncate, {"truncate", Kind::Change, Names::Path}},
        {SYS_ftruncate, {"ftruncate", Kind::Change, Names::Descriptor}},
        {SYS_fallocate, {"fallocate", Kind::Change, Names::Descriptor}},
        {SYS_write, {"write", Kind::Change, Names::Descriptor}},
        {SYS_pwrite64, {"pwrite64", Kind::Change, Names::Descriptor}},
        {SYS_writev, {"writev", Kind::Change, Names::Descriptor}},
        {SYS_sendfile, {"sendfile", Kind::Change, Names::Descriptor}},
        {SYS_copy_file_range, {"copy_file_range", Kind::Change, Names::Output}},
        {SYS_fsync, {"fsync", Kind::Change, Names::Descriptor}},
        {SYS_fdatasync, {"fdatasync", Kind::Change, Names::Descriptor}},
        {SYS_syncfs, {"syncfs", Kind::Change, Names::Descriptor}},
        {SYS_utimensat, {"utimensat", Kind::Change, Names::PathAt}},
        {SYS_setxattr, {"setxattr", Kind::Change, Names::Path}},
        {SYS_fsetxattr, {"fsetxattr", Kind::Change, Names::Descriptor}},
        {SYS_flock, {"flock", Kind::Change, Names::Descriptor}},
        {SYS_fcntl, {"fcntl", Kind::Other, Names::Descriptor}},
        {SYS_fork, {"fork", Kind::Change, Names::Nothing}},
        {SYS_vfork, {"vfork", Kind::Change, Names::Nothing}},
        {SYS_clone, {"clone", Kind::Change, Names::Nothing}},
        {SYS_clone3, {"clone3", Kind::Change, Names::Nothing}},
        {SYS_read, {"read", Kind::Access, Names::Descriptor}},
        {SYS_pread64, {"pread64", Kind::Access, Names::Descriptor}},
        {SYS_readv, {"readv", Kind::Access, Names::Descriptor}},
        {SYS_stat, {"stat", Kind::Access, Names::Path}},
        {SYS_lstat, {"lstat", Kind::Access, Names::Path}},
        {SYS_fstat, {"fstat", Kind::Access, Names::Descriptor}},
        {SYS_newfstatat, {"newfstatat", Kind::Access, Names::PathAt}},
        {SYS_statx, {"statx", Kind::Access, Names::PathAt}},
        {SYS_access, {"access", Kind::Access, Names::Path}},
        {SYS_faccessat, {"faccessat", Kind::Access, Names::PathAt}},
        {SYS_getdents64, {"getdents64", Kind::Access, Names::Descriptor}},
        {SYS_readlink, {"readlink", Kind::Access, Names::Path}},
        {SYS_readlinkat, {"readlinkat", Kind::Access, Names::PathAt}},
        {SYS_pipe, {"pipe", Kind::Access, Names::Nothing}},
        {SYS_pipe2, {"pipe2", Kind::Access, Names::Nothing}},
        {SYS_dup, {"dup", Kind::Access, Names::Descriptor}},
        {SYS_dup2, {"dup2", Kind::Access, Names::Descriptor}},
        {SYS_dup3, {"dup3", Kind::Access, Names::Descriptor}},
        {SYS_wait4, {"wait4", Kind::Access, Names::Nothing}},
        {SYS_waitid, {"waitid", Kind::Access, Names::Nothing}},
        {SYS_getrandom, {"getrandom", Kind::Access, Names::Nothing}},
        {SYS_setuid, {"setuid", Kind::Access, Names::Nothing}},
        {SYS_setreuid, {"setreuid", Kind::Access, Names::Nothing}},
        {SYS_setresuid, {"setresuid", Kind::Access, Names::Nothing}},
        {SYS_mmap, {"mmap", Kind::Other, Names::Nothing}},
        {SYS_brk, {"brk", Kind::Memory, Names::Nothing}},
    };
    return calls;
}

bool opensForChange(const Call& call)
{
    const std::uint64_t flags = call.arguments[call.number == SYS_open ? 1 : 2];
    return (flags & (O_CREAT | O_TRUNC)) != 0;
}

Kind kindOfFcntl(std::uint64_t command)
{
    switch (command) {
    case F_SETLK:
    case F_SETLKW:
    case F_OFD_SETLK:
    case F_OFD_SETLKW:
        return Kind::Change;
    case F_DUPFD:
    case F_DUPFD_CLOEXEC:
        return Kind::Access;
    default:
        return Kind::Other;
    }
}

} // namespace

CallType typeOf(const Call& call)
{
    const auto found = table().find(call.number);
    if (found == table().end())
        return {"?", Kind::Other, Names::Nothing};
    CallType type = found->second;
    if (call.number != SYS_creat && opensFile(call) && opensForChange(call))
        type.kind = Kind::Change;
    if (call.number == SYS_fcntl)
        type.kind = kindOfFcntl(call.arguments[1]);
    if (call.number == SYS_mmap && (call.arguments[3] & MAP_ANONYMOUS) != 0)
        type.kind = Kind::Memory;
    return type;
}

std::vector<std::uint64_t> knownCalls()
{
    std::vector<std::uint64_t> numbers;
    for (const auto& call : table())
        numbers.push_back(call.first);
    return numbers;
}

bool beginsProgram(const Call& call)
{
    return call.number == SYS_fcntl && call.arguments[0] == STDIN_FILENO && call.arguments[1] == F_GETFD;
}

bool opensFile(const Call& call)
{
    return call.number == SYS_open || call.number == SYS_openat || call.number == SYS_creat;
}

bool endsProgram(const Call& call) { return call.number == SYS_exit_group; }

bool startsProcess(const Call& call)
{
    return call.number == SYS_fork || call.number == SYS_vfork || call.number == SYS_clone ||
           call.number == SYS_clone3;
}

bool failsByItsState(const Call& call) { return call.number == SYS_brk; }

bool mayFailWith(const Call& call, int error)
{
    const bool locks = call.number == SYS_fcntl && kindOfFcntl(call.arguments[1]) == Kind::Change;
    const bool duplicates = call.number == SYS_fcntl && !locks;
    switch (error) {
    case EMFILE:
    case ENFILE:
        return opensFile(call) || duplicates || call.number == SYS_pipe || call.number == SYS_pipe2 ||
               call.number == SYS_dup || call.number == SYS_dup2 || call.number == SYS_dup3;
    case EIO:
    case ENOSPC:
        return !locks && !startsProcess(call);
    default:
        return true;
    }
}

std::optional<std::size_t> lengthArgument(const Call& call)
{
    switch (call.number) {
    case SYS_read:
    case SYS_pread64:
    case SYS_write:
    case SYS_pwrite64:
        return 2;
    case SYS_getrandom:
        return 1;
    default:
        return std::nullopt;
    }
}

const char* nameOf(Kind kind)
{
    switch (kind) {
    case Kind::Change:
        return "change";
    case Kind::Access:
        return "access";
    case Kind::Memory:
        return "memory";
    case Kind::Other:
        break;
    }
    return "other";
}

std::optional<Kind> kindNamed(std::string_view name)
{
    for (const Kind kind : {Kind::Change, Kind::Access, Kind::Memory})
        if (name == nameOf(kind))
            return kind;
    return std::nullopt;
}
