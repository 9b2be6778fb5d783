#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <sys/types.h>

/// A system call at its entry.
struct Call {
    std::uint64_t number;
    std::array<std::uint64_t, 6> arguments;
};

/// Returns the name of a call that looks at, opens, changes or uses a file, or starts a program; a null
/// pointer for every other call.
const char* nameOf(const Call& call);

/// Returns the path that the call names, or that its descriptor leads to, of the process stopped at its
/// entry; relative only where the process itself named it relative to its working directory.
std::string pathOf(pid_t pid, const Call& call);
