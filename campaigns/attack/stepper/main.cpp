// Runs a command and stops it around chosen system calls, so that whoever started this program can exchange
// files exactly there.
//
//   stepper AT UNTIL SECONDS COMMAND...
//
// Stops at the entry of call AT and at the exit of call UNTIL, counting from 1 the calls that concern files.
// At each stop one line goes to descriptor 3, and the command goes on when a byte has come from descriptor 4.
// Lines:
//
//   enter NUMBER NAME PATH       separated by tabs; call AT is about to begin
//   leave NUMBER NAME PATH       call UNTIL has returned
//   call NUMBER NAME PATH        each call, where AT is 0; then nothing is stopped
//   ended exit|signal|hung N     always the last
//
// A command that runs for more than SECONDS is killed and reported as hung.

#include "stepper/calls.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <sys/ptrace.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int callStop = SIGTRAP | 0x80;

volatile std::sig_atomic_t timeIsUp = 0;

void noteTime(int) { timeIsUp = 1; }

[[noreturn]] void failed(const std::string& step)
{
    throw std::runtime_error(step + ": " + std::strerror(errno));
}

struct Options {
    int report;
    int answer;
    unsigned long at;
    unsigned long until;
    unsigned seconds;
    char** command;
};

Options readOptions(int count, char** arguments)
{
    if (count < 7)
        throw std::runtime_error("usage: stepper REPORT ANSWER AT UNTIL SECONDS COMMAND...");
    const auto value = [&](int i) { return std::strtoul(arguments[i], nullptr, 10); };
    return {static_cast<int>(value(1)),
            static_cast<int>(value(2)),
            value(3),
            value(4),
            static_cast<unsigned>(value(5)),
            arguments + 6};
}

void limitTime(unsigned seconds)
{
    struct sigaction action = {};
    action.sa_handler = noteTime; // without SA_RESTART, so that it interrupts the waiting
    ::sigaction(SIGALRM, &action, nullptr);
    // Again and again, in case the first one comes when nothing is being waited for.
    const itimerval limit{{1, 0}, {static_cast<time_t>(seconds), 0}};
    ::setitimer(ITIMER_REAL, &limit, nullptr);
}

pid_t start(const Options& options)
{
    const pid_t pid = ::fork();
    if (pid < 0)
        failed("cannot start a process");
    if (pid == 0) {
        ::close(options.report);
        ::close(options.answer);
        if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            ::_exit(126);
        ::execv(options.command[0], options.command);
        ::_exit(127);
    }
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status))
        failed("cannot start the command");
    if (::ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) != 0)
        failed("cannot trace the command");
    return pid;
}

/// The run of one command.
class Run {
public:
    explicit Run(const Options& options) : options_(options), pid_(start(options)) {}

    /// Runs the command to its end and reports it.
    void finish()
    {
        for (;;) {
            ::ptrace(isPast() ? PTRACE_CONT : PTRACE_SYSCALL, pid_, nullptr, signal_);
            const int status = await();
            if (!WIFSTOPPED(status)) {
                reportEnd(status);
                return;
            }
            signal_ = WSTOPSIG(status) == callStop ? 0 : WSTOPSIG(status);
            if (WSTOPSIG(status) == callStop)
                stopped();
        }
    }

private:
    bool records() const { return options_.at == 0; }
    bool isPast() const { return !records() && !inside_ && number_ >= options_.until; }

    /// Waits for the command to stop or end; kills it when its time is up.
    int await() const
    {
        int status = 0;
        while (::waitpid(pid_, &status, 0) != pid_) {
            if (errno != EINTR)
                failed("cannot wait for the command");
            if (timeIsUp)
                ::kill(pid_, SIGKILL);
        }
        return status;
    }

    void say(const std::string& line) const
    {
        const std::string text = line + "\n";
        if (::write(options_.report, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            failed("cannot report");
    }

    /// Waits until whoever reads the report has answered.
    void awaitAnswer() const
    {
        char answer = 0;
        ssize_t count = 0;
        do {
            count = ::read(options_.answer, &answer, 1);
        } while (count < 0 && errno == EINTR);
        if (count != 1)
            failed("nobody answers");
    }

    void stopped()
    {
        __ptrace_syscall_info info{};
        void* size = reinterpret_cast<void*>(sizeof info);
        if (::ptrace(static_cast<__ptrace_request>(PTRACE_GET_SYSCALL_INFO), pid_, size, &info) <= 0)
            failed("cannot examine a system call");
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            Call call{info.entry.nr, {}};
            std::copy(std::begin(info.entry.args), std::end(info.entry.args), call.arguments.begin());
            enter(call);
        } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && inside_) {
            inside_ = false;
            if (number_ == options_.until && !records())
                stop("leave");
        }
    }

    void enter(const Call& call)
    {
        const char* name = nameOf(call);
        if (name == nullptr)
            return;
        inside_ = true;
        ++number_;
        if (!records() && number_ != options_.at && number_ != options_.until)
            return;
        text_ = std::to_string(number_) + "\t" + name + "\t" + pathOf(pid_, call);
        if (records())
            say("call\t" + text_);
        else if (number_ == options_.at)
            stop("enter");
    }

    void stop(const std::string& where)
    {
        say(where + "\t" + text_);
        awaitAnswer();
    }

    void reportEnd(int status)
    {
        if (timeIsUp)
            say("ended\thung\t0");
        else if (WIFSIGNALED(status))
            say("ended\tsignal\t" + std::to_string(WTERMSIG(status)));
        else
            say("ended\texit\t" + std::to_string(WEXITSTATUS(status)));
    }

    const Options options_;
    const pid_t pid_;
    unsigned long number_ = 0;
    bool inside_ = false; ///< of a call that is counted
    std::string text_;    ///< what a line says of the present call
    long signal_ = 0;
};

} // namespace

int main(int count, char** arguments)
{
    try {
        const Options options = readOptions(count, arguments);
        limitTime(options.seconds);
        Run(options).finish();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "stepper: %s\n", error.what());
        return 1;
    }
}
