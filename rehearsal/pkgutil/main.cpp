// Stands in for the package receipt tool inside a rehearsal root; ../README.md describes it.

#include "common/files.h"
#include "pkgutil/commands.h"
#include "pkgutil/rules.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>

namespace {

constexpr int statusBadControlFile = 99;

// One write, so that lines of calls at the same time do not mix. No log, no line; a full disk is no reason to
// fail where the real tool would not.
void logCall(int count, char** arguments)
{
    const OwnedFd log(::open("/var/log/pkgutil-stand-in.log", O_WRONLY | O_APPEND | O_CLOEXEC));
    if (!log)
        return;
    std::string line;
    for (int i = 1; i < count; ++i) {
        line += arguments[i];
        line += i + 1 < count ? '\t' : '\n';
    }
    writeAll(log.get(), line);
}

void runShell(const std::string& command)
{
    const pid_t child = ::fork();
    if (child == 0) {
        // What it prints must not be taken for output of the tool.
        const int nothing = ::open("/dev/null", O_RDWR);
        for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            ::dup2(nothing, fd);
        }
        ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || status != 0) {
        throw BadControlFile("the command failed: " + command);
    }
}

void dieBy(int signal)
{
    if (signal == 0)
        return;
    const rlimit noCore{0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    std::signal(signal, SIG_DFL);
    sigset_t only;
    ::sigemptyset(&only);
    ::sigaddset(&only, signal);
    ::sigprocmask(SIG_UNBLOCK, &only, nullptr);
    std::raise(signal);
}

void spoil(Outcome& outcome, const Behaviour& behaviour)
{
    if (behaviour.longLine)
        outcome.output += std::string(*behaviour.longLine, 'x') + "\n";
    if (behaviour.replacement) {
        const std::optional<std::string> content = readFile(*behaviour.replacement);
        if (!content)
            throw BadControlFile("cannot read " + *behaviour.replacement + ": " + std::strerror(errno));
        outcome.output = *content;
    }
    if (behaviour.cut)
        outcome.output.resize(std::min<std::size_t>(outcome.output.size(), *behaviour.cut));
    if (behaviour.errorLine)
        outcome.errors.insert(0, *behaviour.errorLine + "\n");
    if (behaviour.exitStatus)
        outcome.status = *behaviour.exitStatus;
}

int answer(const Call& call)
{
    const Behaviour behaviour = behaviourFor(call);
    for (const std::string& command : behaviour.commandsBefore) {
        runShell(command);
    }
    dieBy(behaviour.signalBefore);
    Outcome outcome = obey(call, behaviour);
    spoil(outcome, behaviour);
    const bool written = writeAll(STDERR_FILENO, outcome.errors) && writeAll(STDOUT_FILENO, outcome.output);
    for (const std::string& command : behaviour.commandsAfter) {
        runShell(command);
    }
    dieBy(behaviour.signalAfter);
    return written ? outcome.status : 1;
}

} // namespace

int main(int count, char** arguments)
{
    logCall(count, arguments);
    const std::optional<Call> call = readCall(count, arguments);
    if (!call) {
        writeAll(STDERR_FILENO,
                 "Usage: pkgutil [--volume PATH] --pkgs | --pkgs=REGEX | --pkg-info ID | --files ID | "
                 "--forget ID\n");
        return 1;
    }
    try {
        return answer(*call);
    } catch (const std::exception& error) {
        writeAll(STDERR_FILENO, std::string("pkgutil stand-in: ") + error.what() + "\n");
        return statusBadControlFile;
    }
}
