#include "interrupt/tracee.h"

#include "common/text.h"
#include "interrupt/stops.h"

#include <csignal>
#include <dirent.h>
#include <functional>
#include <grp.h>
#include <memory>
#include <set>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int callStop = SIGTRAP | 0x80;

volatile std::sig_atomic_t timeIsUp = 0;

void noteTime(int) { timeIsUp = 1; }

void limitTime(unsigned seconds)
{
    struct sigaction action = {};
    action.sa_handler = noteTime; // without SA_RESTART, so that it interrupts the waiting
    ::sigaction(SIGALRM, &action, nullptr);
    // Again and again, in case the first one comes when nothing is being waited for.
    const itimerval limit{{1, 0}, {static_cast<time_t>(seconds), 0}};
    ::setitimer(ITIMER_REAL, &limit, nullptr);
}

std::set<Kind> kindsToWatch(const Options& options)
{
    if (options.record)
        return {Kind::Change, Kind::Access, Kind::Memory};
    std::set<Kind> kinds;
    for (const Point& point : options.points)
        kinds.insert(point.kind);
    return kinds;
}

[[noreturn]] void become(const Options& options)
{
    std::vector<char*> words;
    for (const std::string& word : options.command)
        words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    ::setpgid(0, 0);
    ::personality(ADDR_NO_RANDOMIZE); // so that the same run asks for memory at the same calls
    if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0 || ::raise(SIGSTOP) != 0 ||
        !stopAtCallsOf(kindsToWatch(options)))
        ::_exit(126);
    if (options.user &&
        (::setgroups(0, nullptr) != 0 || ::setgid(options.group) != 0 || ::setuid(*options.user) != 0))
        ::_exit(126);
    ::execv(words[0], words.data());
    ::_exit(127);
}

/// Calls `take` with every open descriptor of the process above standard error, and what it leads to.
void forOpenDescriptors(pid_t pid, const std::function<void(int, const std::string&)>& take)
{
    const std::string path = "/proc/" + std::to_string(pid) + "/fd";
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(path.c_str()), ::closedir);
    if (!directory)
        failed("cannot list the open descriptors");
    while (const dirent* entry = ::readdir(directory.get())) {
        const auto descriptor = number(entry->d_name);
        if (descriptor && *descriptor > STDERR_FILENO)
            take(static_cast<int>(*descriptor), descriptorTarget(pid, static_cast<int>(*descriptor)));
    }
}

bool strikes(const Point& point, Kind kind, unsigned long number, const Call& call)
{
    if (point.kind != kind || point.number > number)
        return false;
    if (point.number == number)
        return true;
    return point.onwards && (point.deed != Deed::Fail || mayFailWith(call, point.error));
}

const Point* pointFor(const std::vector<Point>& points, Kind kind, unsigned long number, const Call& call)
{
    for (const Point& point : points)
        if (strikes(point, kind, number, call))
            return &point;
    return nullptr;
}

} // namespace

std::string Tracee::run()
{
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    limitTime(options_.seconds);
    start();
    for (;;) {
        int status = 0;
        const pid_t pid = ::waitpid(-1, &status, __WALL);
        if (pid < 0 && errno != EINTR)
            break;
        if (pid < 0 && timeIsUp)
            ::kill(-pid_, SIGKILL);
        else if (pid == pid_)
            handle(status);
        else if (pid > 0)
            handleOther(pid, status);
    }
    for (const auto& [kind, count] : counts_)
        line(std::string("counts\t") + nameOf(kind) + "\t" + std::to_string(count));
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
    constexpr long traced = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACESECCOMP | PTRACE_O_TRACEEXEC |
                            PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE |
                            PTRACE_O_EXITKILL;
    if (::ptrace(PTRACE_SETOPTIONS, pid_, nullptr, traced) != 0)
        failed("cannot trace the command");
    resume(0);
}

void Tracee::resume(int signal)
{
    // Fails where the process was killed meanwhile; then its end is the next thing to hear of it.
    const auto request = awaitsExit_ ? PTRACE_SYSCALL : PTRACE_CONT;
    ::ptrace(request, pid_, nullptr, static_cast<long>(signal));
}

/// Acts on what the command's own process has come to.
void Tracee::handle(int status)
{
    if (!WIFSTOPPED(status)) {
        reportEnd(status);
        return;
    }
    int signal = 0;
    if (timeIsUp)
        ::kill(-pid_, SIGKILL);
    else if (status >> 16 != 0)
        handleEvent(status >> 16);
    else if (WSTOPSIG(status) != callStop)
        signal = WSTOPSIG(status);
    else if (awaitsExit_)
        leaveCall(callInfo(pid_).exit.rval);
    resume(signal);
}

/// Lets a process go on that the command has started; it is traced only because it stops at the same calls.
void Tracee::handleOther(pid_t pid, int status)
{
    if (!WIFSTOPPED(status))
        return;
    const int event = status >> 16;
    if (event == PTRACE_EVENT_EXEC && !timeIsUp)
        reportInherited(pid);
    const int signal = event != 0 || WSTOPSIG(status) == SIGSTOP ? 0 : WSTOPSIG(status);
    ::ptrace(PTRACE_CONT, pid, nullptr, static_cast<long>(signal));
}

void Tracee::handleEvent(int event)
{
    if (event == PTRACE_EVENT_EXEC)
        executed_ = true;
    if (event == PTRACE_EVENT_FORK || event == PTRACE_EVENT_VFORK || event == PTRACE_EVENT_CLONE) {
        unsigned long child = 0;
        if (::ptrace(PTRACE_GETEVENTMSG, pid_, nullptr, &child) == 0)
            started_.push_back(static_cast<pid_t>(child));
    }
    if (event != PTRACE_EVENT_SECCOMP || !executed_ || killed_)
        return;
    const __ptrace_syscall_info info = callInfo(pid_);
    Call call{info.seccomp.nr, {}};
    std::copy(std::begin(info.seccomp.args), std::end(info.seccomp.args), call.arguments.begin());
    enterCall(call);
}

void Tracee::enterCall(const Call& call)
{
    begun_ = begun_ || beginsProgram(call);
    if (endsProgram(call))
        reportUnfinished();
    const CallType type = typeOf(call);
    if (!begun_ || type.kind == Kind::Other)
        return;

    const unsigned long number = ++counts_[type.kind];
    const Point* point = pointFor(options_.points, type.kind, number, call);
    if (!point && !options_.record)
        return;
    const std::string described = std::string("\t") + nameOf(type.kind) + "\t" + std::to_string(number) +
                                  "\t" + type.name + "\t" + subjectOf(pid_, call, type.names);
    awaitsExit_ = true;
    if (options_.record)
        recorded_ = "call" + described;
    if (options_.contents && type.kind == Kind::Change)
        examined_ = call;
    if (!point)
        return;
    line("hit" + described);
    strikeAtEntry(*point, call);
}

void Tracee::strikeAtEntry(const Point& point, const Call& call)
{
    if (point.deed == Deed::Fail && failsByItsState(call)) {
        changeArgument(call, 0, 0);
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
            changeArgument(call, *length, call.arguments[*length] / 2);
    }
}

void Tracee::changeArgument(const Call& call, std::size_t index, std::uint64_t value)
{
    changed_ = ChangedArgument{index, call.arguments[index]};
    setArgument(pid_, index, value);
}

void Tracee::leaveCall(std::int64_t result)
{
    awaitsExit_ = false;
    if (changed_)
        setArgument(pid_, changed_->index, changed_->value);
    changed_.reset();
    if (pending_ && pending_->deed == Deed::Fail) {
        result = -pending_->error;
        setResult(pid_, result);
    }
    if (!recorded_.empty())
        line(recorded_ + "\t" + std::to_string(result));
    recorded_.clear();
    if (examined_ && result >= 0)
        line("left\t" + stateAfter(pid_, *examined_, typeOf(*examined_).names, result));
    examined_.reset();
    if (pending_ && (pending_->deed == Deed::KillAfter || pending_->deed == Deed::KillAll))
        kill(pending_->deed == Deed::KillAll);
    pending_ = nullptr;
}

void Tracee::kill(bool group)
{
    killed_ = true;
    ::kill(group ? -pid_ : pid_, SIGKILL);
}

/// Reports what a program that ends should have closed and waited for.
void Tracee::reportUnfinished()
{
    forOpenDescriptors(pid_, [&](int descriptor, const std::string& target) {
        line("open\t" + std::to_string(descriptor) + "\t" + target);
    });
    for (const pid_t child : started_)
        if (::kill(child, 0) == 0) // also as long as nobody has waited for it
            line("running\t" + std::to_string(child));
}

/// Reports what a program that was just started has got beside its standard descriptors. A second name of its
/// own output is harmless.
void Tracee::reportInherited(pid_t pid)
{
    const std::string output = descriptorTarget(pid, STDOUT_FILENO);
    forOpenDescriptors(pid, [&](int descriptor, const std::string& target) {
        if (target != output)
            line("inherited\t" + std::to_string(descriptor) + "\t" + target);
    });
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
