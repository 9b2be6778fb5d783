#pragma once

#include "interrupt/calls.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <sys/ptrace.h>
#include <sys/types.h>

/// Throws a std::runtime_error made of `step` and the text of errno.
[[noreturn]] inline void failed(const std::string& step)
{
    throw std::runtime_error(step + ": " + std::strerror(errno));
}

/// Returns where and why the stopped process `pid` is inside a system call.
__ptrace_syscall_info callInfo(pid_t pid);

/// Makes the process, stopped at a call's entry, skip the call.
void skipCall(pid_t pid);

/// Changes an argument of the call at whose entry the process is stopped.
void setArgument(pid_t pid, std::size_t index, std::uint64_t value);

/// Changes the result of the call at whose exit the process is stopped; an error is minus its number.
void setResult(pid_t pid, std::int64_t value);

/// Describes what the call at whose entry the process is stopped acts on: absolute paths where they can be
/// told, separated by " -> ". Empty for a call that names nothing.
std::string subjectOf(pid_t pid, const Call& call, Names names);

/// Describes what the call at whose exit the process is stopped has left where it acted: "directory", "file",
/// "link" or "other", mode in octal, owner and group, and of a regular file its whole content in hexadecimal
/// digits, separated by tabs. Empty where there is nothing.
std::string stateAfter(pid_t pid, const Call& call, Names names, std::int64_t result);

/// Returns what `descriptor` of the process leads to.
std::string descriptorTarget(pid_t pid, int descriptor);
