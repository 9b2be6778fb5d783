#include "support/run.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <grp.h>
#include <ostream>
#include <poll.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace maintenance::rehearsed {

namespace {

constexpr int timedOut = -1000;
constexpr std::chrono::seconds patience{30};

void check(bool done, const char* what)
{
    if (!done)
        throw std::system_error(errno, std::generic_category(), what);
}

struct Pipe {
    int readEnd = -1;
    int writeEnd = -1;
};

Pipe makePipes()
{
    std::array<int, 2> ends{};
    check(::pipe2(ends.data(), O_CLOEXEC) == 0, "pipe");
    return {ends[0], ends[1]};
}

[[noreturn]] void giveUp(const char* what)
{
    ::perror(what);
    ::_exit(126);
}

void redirectOutput(Output output, int captured)
{
    int target = captured;
    if (output == Output::FullDevice)
        target = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    if (output == Output::BrokenPipe) {
        const Pipe pipe = makePipes();
        ::close(pipe.readEnd);
        target = pipe.writeEnd;
    }
    if (target < 0 || ::dup2(target, STDOUT_FILENO) < 0)
        giveUp("standard output");
}

void becomeAccount(uid_t account)
{
    if (account == rootUid)
        return;
    const gid_t group = staffGid;
    if (::setgroups(1, &group) != 0 || ::setgid(group) != 0 || ::setuid(account) != 0)
        giveUp("account");
}

std::vector<char*> pointers(std::vector<std::string>& words)
{
    std::vector<char*> result;
    for (std::string& word : words)
        result.push_back(word.data());
    result.push_back(nullptr);
    return result;
}

std::vector<std::string> environment()
{
    std::vector<std::string> words = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/Users/other", "USER=other",
                                      "LOGNAME=other", "LC_ALL=C"};
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS"})
        if (const char* value = std::getenv(name))
            words.push_back(std::string(name) + "=" + value);
    return words;
}

/// The child's part: arranges the surroundings and becomes the program.
[[noreturn]] void become(int program, std::vector<std::string> words, const Surroundings& surroundings,
                         int out, int err)
{
    redirectOutput(surroundings.output, out);
    ::dup2(err, STDERR_FILENO);
    ::umask(surroundings.umask);
    std::signal(SIGPIPE, SIG_DFL);
    std::signal(SIGCHLD, surroundings.childSignalsIgnored ? SIG_IGN : SIG_DFL);
    if (surroundings.largestFile) {
        const rlimit limit{*surroundings.largestFile, *surroundings.largestFile};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0)
            giveUp("limit");
    }
    becomeAccount(surroundings.account);
    for (const int descriptor : surroundings.closed)
        ::close(descriptor);
    std::vector<std::string> variables = environment();
    ::fexecve(program, pointers(words).data(), pointers(variables).data());
    ::_exit(127);
}

/// A sanitized program tells what its sanitizer misses, such as /proc, in lines of its own.
void removeSanitizerNotes(std::string& text)
{
    for (std::size_t note = 0; (note = text.find("==WARNING: ")) != std::string::npos;) {
        const std::size_t start = text.rfind('\n', note) + 1;
        text.erase(start, text.find('\n', note) + 1 - start);
    }
}

/// Reads both pipes to their ends; false when that took too long.
bool collect(int out, int err, Outcome& outcome)
{
    std::array<pollfd, 2> watched = {pollfd{out, POLLIN, 0}, pollfd{err, POLLIN, 0}};
    const std::array<std::string*, 2> texts = {&outcome.out, &outcome.err};
    const auto end = std::chrono::steady_clock::now() + patience;
    while (watched[0].fd >= 0 || watched[1].fd >= 0) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        ::poll(watched.data(), watched.size(), 100);
        for (std::size_t i = 0; i < watched.size(); ++i) {
            if (watched[i].fd < 0 || watched[i].revents == 0)
                continue;
            std::array<char, 4096> chunk;
            const ssize_t count = ::read(watched[i].fd, chunk.data(), chunk.size());
            if (count > 0)
                texts[i]->append(chunk.data(), static_cast<std::size_t>(count));
            else
                watched[i].fd = -1;
        }
    }
    return true;
}

Outcome runProgram(const std::filesystem::path& program, const std::vector<std::string>& words,
                   const Surroundings& surroundings)
{
    // Opened here, so that an account that cannot reach the build directory can run it too.
    const int executable = ::open(program.c_str(), O_PATH | O_CLOEXEC);
    check(executable >= 0, program.c_str());
    const Pipe out = makePipes();
    const Pipe err = makePipes();
    const pid_t child = ::fork();
    check(child >= 0, "fork");
    if (child == 0)
        become(executable, words, surroundings, out.writeEnd, err.writeEnd);
    ::close(executable);
    ::close(out.writeEnd);
    ::close(err.writeEnd);

    Outcome outcome;
    const bool ended = collect(out.readEnd, err.readEnd, outcome);
    if (!ended)
        ::kill(child, SIGKILL);
    int status = 0;
    check(::waitpid(child, &status, 0) == child, "waitpid");
    ::close(out.readEnd);
    ::close(err.readEnd);
    removeSanitizerNotes(outcome.err);
    outcome.status = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    if (!ended)
        outcome.status = timedOut;
    return outcome;
}

std::string shortened(const std::string& text)
{
    constexpr std::size_t longest = 2000;
    return text.size() <= longest ? text
                                  : text.substr(0, longest) + "... (" + std::to_string(text.size()) + ")";
}

} // namespace

std::ostream& operator<<(std::ostream& stream, const Outcome& outcome)
{
    return stream << "status " << outcome.status << ", output \"" << shortened(outcome.out) << "\", error \""
                  << shortened(outcome.err) << "\"";
}

Outcome succeeded(const std::string& out) { return {0, out, ""}; }

Outcome usageError() { return {64, "", ""}; }

Outcome refused(const std::string& message) { return {65, "", message + "\n"}; }

Outcome notLocated(const std::string& message) { return {66, "", message + "\n"}; }

Outcome failed(const std::string& message) { return {70, "", message + "\n"}; }

Outcome endedBy(int signal) { return {-signal, "", ""}; }

Surroundings asPlayer()
{
    Surroundings surroundings;
    surroundings.account = playerUid;
    return surroundings;
}

Outcome run(const Arguments& arguments, const Surroundings& surroundings)
{
    std::vector<std::string> words = {surroundings.name};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return runProgram(surroundings.tool.empty() ? builtTool() : surroundings.tool, words, surroundings);
}

Outcome runWithoutName() { return runProgram(builtTool(), {}, {}); }

Outcome runCommand(const Arguments& words, const Surroundings& surroundings)
{
    return runProgram(words.at(0), words, surroundings);
}

std::filesystem::path builtTool() { return MAINTENANCE_TOOL; }

} // namespace maintenance::rehearsed
