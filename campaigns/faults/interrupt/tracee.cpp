#include "interrupt/tracee.h"

#include <csignal>
#include <dirent.h>
#include <grp.h>
#include <memory>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int callStop = SIGTRAP | 0x80;

volatile std::sig_atomic_t timeIsUp = 0;

void noteTime(int) { timeIsUp = 1; }

void limitTime(unsigned seconds)
{
    struct sigaction action {};
    action.sa_handler = noteTime; // without SA_RESTART, so that it interrupts the waiting
    ::sigaction(SIGALRM, &action, nullptr);
    ::alarm(seconds);
}

[[noreturn]] void become(const Options& options)
{
    std::vector<char*> words;
    for (const std::string& word : options.command)
        words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    ::setpgid(0, 0);
    if (options.user &&
        (::setgroups(0, nullptr) != 0 || ::setgid(options.group) != 0 || ::setuid(*options.user) != 0))
        ::_exit(126);
    if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
        ::_exit(126);
    ::raise(SIGSTOP);
    ::execv(words[0], words.data());
    ::_exit(127);
}

const Point* pointFor(const std::vector<Point>& points, Kind kind, unsigned long number)
{
    for (const Point& point : points)
        if (point.kind == kind && (point.number == number || (point.onwards && point.number < number)))
            return &point;
    return nullptr;
}

} // namespace

std::string Tracee::run()
{
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    limitTime(options_.seconds);
    start();
    while (follow()) {
    }
    // What the command has started may outlive it, and must not reach into what is done next.
    int status = 0;
    while (::waitpid(-1, &status, __WALL) > 0 || errno == EINTR)
        if (timeIsUp)
            ::kill(-pid_, SIGKILL);
    for (const Kind kind : {Kind::Change, Kind::Access, Kind::Memory})
        line(std::string("counts\t") + nameOf(kind) + "\t" + std::to_string(counts_[kind]));
    return report_;
}

void Tracee::start()
{
    pid_ = ::fork();
    if (pid_ < 0)
        failed("cannot start a process");
    if (pid_ == 0)
        become(options_);
    int status = 0;
    if (::waitpid(pid_, &status, 0) != pid_ || !WIFSTOPPED(status))
        failed("cannot start the command");
    const long traced = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
    if (::ptrace(PTRACE_SETOPTIONS, pid_, nullptr, traced) != 0)
        failed("cannot trace the command");
    ::ptrace(PTRACE_SYSCALL, pid_, nullptr, 0L);
}

/// Waits for the next event and acts on it; false once the process has ended.
bool Tracee::follow()
{
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0) {
        if (errno != EINTR)
            failed("cannot wait for the command");
        if (timeIsUp)
            ::kill(-pid_, SIGKILL);
    }
    if (!WIFSTOPPED(status)) {
        reportEnd(status);
        return false;
    }
    long signal = 0;
    if (status >> 8 == (SIGTRAP | PTRACE_EVENT_EXEC << 8))
        executed_ = true;
    else if (WSTOPSIG(status) == callStop)
        handleCallStop();
    else
        signal = WSTOPSIG(status);
    ::ptrace(PTRACE_SYSCALL, pid_, nullptr, signal);
    return true;
}

void Tracee::handleCallStop()
{
    if (!executed_ || killed_)
        return;
    const __ptrace_syscall_info info = callInfo(pid_);
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY)
        enterCall(info);
    else if (info.op == PTRACE_SYSCALL_INFO_EXIT && inCall_)
        leaveCall(info);
}

void Tracee::enterCall(const __ptrace_syscall_info& info)
{
    Call call{info.entry.nr, {}};
    std::copy(std::begin(info.entry.args), std::end(info.entry.args), call.arguments.begin());
    begun_ = begun_ || beginsProgram(call);
    if (endsProgram(call))
        reportOpenDescriptors();
    const CallType type = typeOf(call);
    if (!begun_ || type.kind == Kind::Other)
        return;

    inCall_ = true;
    const unsigned long number = ++counts_[type.kind];
    const Point* point = pointFor(options_.points, type.kind, number);
    if (!point && !options_.record)
        return;
    const std::string described = std::string("\t") + nameOf(type.kind) + "\t" + std::to_string(number) +
                                  "\t" + type.name + "\t" + subjectOf(pid_, call, type.names);
    if (options_.record)
        recorded_ = "call" + described;
    if (!point)
        return;
    line("hit" + described);
    strikeAtEntry(*point, call);
}

void Tracee::strikeAtEntry(const Point& point, const Call& call)
{
    if (point.deed == Deed::Fail && failsByItsState(call)) {
        setArgument(pid_, 0, 0);
        return;
    }
    pending_ = &point;
    if (point.deed == Deed::KillBefore) {
        kill(false);
    } else if (point.deed == Deed::Fail) {
        skipCall(pid_);
    } else if (point.deed == Deed::Shorten) {
        const auto length = lengthArgument(call);
        if (length && call.arguments[*length] > 1)
            setArgument(pid_, *length, call.arguments[*length] / 2);
    }
}

void Tracee::leaveCall(const __ptrace_syscall_info& info)
{
    inCall_ = false;
    std::int64_t result = info.exit.rval;
    if (pending_ && pending_->deed == Deed::Fail) {
        result = -pending_->error;
        setResult(pid_, result);
    }
    if (!recorded_.empty())
        line(recorded_ + "\t" + std::to_string(result));
    recorded_.clear();
    if (pending_ && (pending_->deed == Deed::KillAfter || pending_->deed == Deed::KillAll))
        kill(pending_->deed == Deed::KillAll);
    pending_ = nullptr;
}

void Tracee::kill(bool group)
{
    killed_ = true;
    ::kill(group ? -pid_ : pid_, SIGKILL);
}

void Tracee::reportOpenDescriptors()
{
    const std::string path = "/proc/" + std::to_string(pid_) + "/fd";
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(path.c_str()), ::closedir);
    if (!directory)
        failed("cannot list the open descriptors");
    while (const dirent* entry = ::readdir(directory.get())) {
        const std::string name = entry->d_name;
        if (name == "." || name == ".." || name == "0" || name == "1" || name == "2")
            continue;
        line("open\t" + name + "\t" + descriptorTarget(pid_, std::stoi(name)));
    }
}

void Tracee::reportEnd(int status)
{
    if (timeIsUp)
        line("ended\thung");
    else if (killed_)
        line("ended\tkilled");
    else if (WIFSIGNALED(status))
        line("ended\tsignal\t" + std::to_string(WTERMSIG(status)));
    else
        line("ended\texit\t" + std::to_string(WEXITSTATUS(status)));
}
