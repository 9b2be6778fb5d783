#pragma once

#include "interrupt/options.h"
#include "interrupt/tracing.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

/// An argument of the present call that has to have its value back when the call returns: the kernel leaves
/// the registers alone, and compilers count on it.
struct ChangedArgument {
    std::size_t index;
    std::uint64_t value;
};

/// One run of a command under this program's eyes. A process traces at most one at a time.
class Tracee {
public:
    explicit Tracee(const Options& options) : options_(options) {}

    /// Runs the command to its end, waits for every process that it has started, and returns the report.
    /// Throws std::runtime_error when the command cannot be run or traced.
    std::string run();

private:
    void start();
    void handle(int status);
    void handleOther(pid_t pid, int status);
    void handleEvent(int event);
    void resume(int signal);
    void enterCall(const Call& call);
    void leaveCall(std::int64_t result);
    void strikeAtEntry(const Point& point, const Call& call);
    void changeArgument(const Call& call, std::size_t index, std::uint64_t value);
    void kill(bool group);
    void reportUnfinished();
    void reportInherited(pid_t pid);
    void reportEnd(int status);
    void line(const std::string& text) { report_ += text + "\n"; }

    const Options& options_;
    pid_t pid_ = -1;
    std::vector<pid_t> started_; ///< by the command
    bool executed_ = false;      ///< the command's own program runs
    bool begun_ = false;         ///< its loader is done
    bool killed_ = false;
    bool awaitsExit_ = false; ///< of the present call
    std::map<Kind, unsigned long> counts_;
    const Point* pending_ = nullptr; ///< what still has to happen at the exit of the present call
    std::optional<ChangedArgument> changed_;
    std::string recorded_;         ///< the report line of the present call
    std::optional<Call> examined_; ///< the present call, if what it leaves is to be reported
    std::string report_;
};
