#pragma once

#include <stdexcept>
#include <string>

namespace maintenance::kit {

/// How a run ends, after sysexits.
enum ExitStatus : int {
    /// Done, and nothing was found.
    AllRight = 0,
    /// Wrong words on the command line.
    WrongUsage = 64,
    /// The input is wrong, two things differ, or something needs attention; the findings say what.
    Findings = 65,
    /// An input is not there or cannot be read.
    NoInput = 66,
    /// Something that should not happen.
    InternalError = 70,
    /// The result cannot be written to where it belongs.
    NotCreated = 73,
    /// Standard output does not take the result.
    OutputFailed = 74,
    /// Nothing was found, but not everything could be read.
    NotPermitted = 77,
};

/// Ends a run with a status of its own and says what to do next.
class Failure : public std::runtime_error {
public:
    /// message  one line: what failed, with the name of the file
    /// advice   one line: what to do next
    Failure(ExitStatus status, const std::string& message, std::string advice)
        : std::runtime_error(message), status_(status), advice_(std::move(advice))
    {
    }

    ExitStatus status() const noexcept { return status_; }
    const std::string& advice() const noexcept { return advice_; }

private:
    ExitStatus status_;
    std::string advice_;
};

/// A failure for people: what failed, and what to do next.
std::string failureText(const Failure& failure);

/// The same as a JSON object.
std::string failureJson(const Failure& failure);

} // namespace maintenance::kit
