#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

/// The installation cannot go on; what() is one line. The exit status is 1, or 99 for a wrong control file.
struct Failure : std::runtime_error {
    explicit Failure(const std::string& line, int exitStatus = 1)
        : std::runtime_error(line), status(exitStatus)
    {
    }
    int status;
};

/// Throws the Failure "WHAT: reason", the reason being that of errno.
[[noreturn]] inline void failed(const std::string& what)
{
    throw Failure(what + ": " + std::strerror(errno));
}
