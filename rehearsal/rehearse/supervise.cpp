#include "rehearse/supervise.h"

#include "rehearse/accounts.h"
#include "rehearse/failure.h"
#include "rehearse/user_namespace.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace {

constexpr int passedOn[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2};

// What the command inherits as if rehearse were not there.
struct Inherited {
    sigset_t signals{};
    mode_t mask = 0;
    std::string directory;
};

Inherited takeOver()
{
    Inherited inherited;
    char* directory = ::getcwd(nullptr, 0);
    inherited.directory = directory != nullptr ? directory : "/";
    std::free(directory);
    inherited.mask = ::umask(0);
    ::signal(SIGCHLD, SIG_DFL); // ignored, there would be no status to wait for
    sigset_t waited;
    ::sigemptyset(&waited);
    ::sigaddset(&waited, SIGCHLD);
    for (const int signal : passedOn) {
        ::sigaddset(&waited, signal);
    }
    ::sigprocmask(SIG_BLOCK, &waited, &inherited.signals);
    return inherited;
}

// Waits for `child`, reaps everybody else's orphans and passes signals on to `child`. A terminal sends its
// signals to the command itself, as a member of the same process group, so those are not sent twice.
int waitFor(pid_t child)
{
    sigset_t waited;
    ::sigemptyset(&waited);
    ::sigaddset(&waited, SIGCHLD);
    for (const int signal : passedOn) {
        ::sigaddset(&waited, signal);
    }
    for (;;) {
        int status = 0;
        for (pid_t ended = ::waitpid(-1, &status, WNOHANG); ended > 0;
             ended = ::waitpid(-1, &status, WNOHANG)) {
            if (ended != child)
                continue;
            return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        }
        siginfo_t info{};
        const int signal = ::sigwaitinfo(&waited, &info);
        if (signal > 0 && signal != SIGCHLD && info.si_code != SI_KERNEL)
            ::kill(child, signal);
    }
}

[[noreturn]] void runCommand(const Options& options, const Inherited& inherited)
{
    try {
        // Where the account may not go, it would not have been when the command was started there either.
        if (::chdir(inherited.directory.c_str()) != 0 && ::chdir("/") != 0)
            refused("cannot enter /");
        if (!options.user.empty())
            becomeAccount(options.user);
        ::umask(inherited.mask);
        ::sigprocmask(SIG_SETMASK, &inherited.signals, nullptr);
        ::execvp(options.command[0], options.command.data());
        const int status = errno == ENOENT ? statusNotFound : statusCannotRun;
        throw Failure(status, std::string("cannot run ") + options.command[0] + ": " + std::strerror(errno));
    } catch (const Failure& failure) {
        std::fprintf(stderr, "rehearse: %s\n", failure.what());
        ::_exit(failure.status);
    }
}

// Waits until the parent has mapped the ids, and from then on dies with it.
void dependOnParent(int lifeline)
{
    char ready = 0;
    if (::read(lifeline, &ready, 1) != 1)
        ::_exit(statusCannotEnter);
    if (::setresgid(0, 0, 0) != 0 || ::setresuid(0, 0, 0) != 0)
        refused("cannot become root");
    // Changing ids forgets this setting, so it comes after them; a parent that died before leaves the pipe
    // closed.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    pollfd end{lifeline, POLLIN, 0};
    if (::poll(&end, 1, 0) > 0)
        ::_exit(statusCannotEnter);
}

[[noreturn]] void runRoot(const Options& options, const StandIns& standIns, const Inherited& inherited,
                          int lifeline, bool userNamespace)
{
    try {
        dependOnParent(lifeline);
        const Root root = prepareRoot(options, userNamespace);
        furnish(root, standIns, options.console);
        enterRoot(root, options);
        const pid_t command = ::fork();
        if (command < 0)
            refused("cannot start a process");
        if (command == 0)
            runCommand(options, inherited);
        ::_exit(waitFor(command));
    } catch (const Failure& failure) {
        std::fprintf(stderr, "rehearse: %s\n", failure.what());
        ::_exit(failure.status);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "rehearse: %s\n", error.what());
        ::_exit(statusFailed);
    }
}

pid_t startIn(int namespaces)
{
    return static_cast<pid_t>(::syscall(SYS_clone, namespaces | SIGCHLD, nullptr, nullptr, nullptr, nullptr));
}

} // namespace

int superviseCommand(const Options& options, const StandIns& standIns)
{
    const Inherited inherited = takeOver();
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        refused("cannot make a pipe");
    OwnedFd lifeline(ends[0]);
    OwnedFd parentEnd(ends[1]);

    bool userNamespace = false;
    pid_t child = startIn(CLONE_NEWNS | CLONE_NEWPID);
    if (child < 0 && errno == EPERM) {
        userNamespace = true;
        child = startIn(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWPID);
        if (child < 0)
            refused("needs root, or the right to make a user namespace");
    }
    if (child < 0)
        refused("cannot make a mount and a process-id namespace");
    if (child == 0) {
        parentEnd = OwnedFd();
        runRoot(options, standIns, inherited, lifeline.get(), userNamespace);
    }
    if (userNamespace)
        mapIds(child); // if it throws, the pipe closes and the child ends
    if (::write(parentEnd.get(), "", 1) != 1)
        refused("cannot start the root");
    return waitFor(child);
}
