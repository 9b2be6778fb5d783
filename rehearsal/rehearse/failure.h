#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

/// Exit statuses of rehearse itself, chosen like those of env and timeout; 77 is how a test says "skipped".
constexpr int statusCannotEnter = 77;
constexpr int statusFailed = 125;
constexpr int statusCannotRun = 126;
constexpr int statusNotFound = 127;

/// Something went wrong before the command could start. what() is one line without a line feed.
struct Failure : std::runtime_error {
    Failure(int exitStatus, const std::string& line) : std::runtime_error(line), status(exitStatus) {}
    int status; ///< the exit status of rehearse
};

/// Throws the Failure for a step of entering the root that the machine refused; reads errno.
///
/// step  what was tried, such as "cannot mount /proc"
[[noreturn]] inline void refused(const std::string& step)
{
    throw Failure(statusCannotEnter, step + ": " + std::strerror(errno));
}
