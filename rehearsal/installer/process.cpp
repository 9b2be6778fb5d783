#include "installer/process.h"

#include "common/files.h"
#include "installer/failure.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace {

std::vector<char*> pointers(const std::vector<std::string>& words)
{
    std::vector<char*> result;
    for (const std::string& word : words) {
        result.push_back(const_cast<char*>(word.c_str()));
    }
    result.push_back(nullptr);
    return result;
}

[[noreturn]] void become(const std::vector<std::string>& words, const std::vector<std::string>& environment,
                         const std::string& directory, int output)
{
    const std::vector<char*> arguments = pointers(words);
    const std::vector<char*> variables = pointers(environment);
    ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    ::umask(022);
    if (::chdir(directory.c_str()) == 0)
        ::execvpe(arguments[0], arguments.data(), variables.data());
    writeAll(STDERR_FILENO, "cannot run " + words[0] + ": " + std::strerror(errno) + "\n");
    ::_exit(126);
}

} // namespace

int runProgram(const std::vector<std::string>& words, const std::vector<std::string>& environment,
               const std::string& directory, const std::function<void(const std::string&)>& line)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        failed("cannot make a pipe");
    const OwnedFd output(ends[0]);
    OwnedFd input(ends[1]);
    const pid_t child = ::fork();
    if (child < 0)
        failed("cannot start " + words[0]);
    if (child == 0)
        become(words, environment, directory, input.get());
    input = OwnedFd();

    std::string pending;
    char buffer[4096];
    for (ssize_t got = ::read(output.get(), buffer, sizeof buffer); got > 0;
         got = ::read(output.get(), buffer, sizeof buffer)) {
        pending.append(buffer, static_cast<std::size_t>(got));
        for (std::size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
            line(pending.substr(0, end));
            pending.erase(0, end + 1);
        }
    }
    if (!pending.empty())
        line(pending);
    int status = 0;
    if (::waitpid(child, &status, 0) != child)
        failed("cannot wait for " + words[0]);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}
