#pragma once

#include "interrupt/options.h"
#include "interrupt/tracing.h"

#include <map>
#include <string>

/// One run of a command under this program's eyes. A process traces at most one at a time.
class Tracee {
public:
    explicit Tracee(const Options& options) : options_(options) {}

    /// Runs the command to its end, waits for every process that it has started, and returns the report.
    /// Throws std::runtime_error when the command cannot be run or traced.
    std::string run();

private:
    void start();
    bool follow();
    void handleCallStop();
    void enterCall(const __ptrace_syscall_info& info);
    void leaveCall(const __ptrace_syscall_info& info);
    void strikeAtEntry(const Point& point, const Call& call);
    void kill(bool group);
    void reportOpenDescriptors();
    void reportEnd(int status);
    void line(const std::string& text) { report_ += text + "\n"; }

    const Options& options_;
    pid_t pid_ = -1;
    bool executed_ = false; ///< the command's own program runs
    bool begun_ = false;    ///< its loader is done
    bool killed_ = false;
    bool inCall_ = false;
    std::map<Kind, unsigned long> counts_;
    const Point* pending_ = nullptr; ///< what still has to happen at the exit of the present call
    std::string recorded_;           ///< the report line of the present call
    std::string report_;
};
