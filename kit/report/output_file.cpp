#include "kit/report/output_file.h"

#include "fs/fixed_file.h"
#include "fs/owned_fd.h"
#include "kit/report/failure.h"
#include "kit/report/printable.h"
#include "kit/report/terminal.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace maintenance::kit {

namespace {

constexpr mode_t outputMode = 0644;

[[noreturn]] void fail(const std::string& path, const std::string& reason)
{
    throw Failure(NotCreated, printable(path) + " cannot be written: " + reason,
                  "name another place with --output, or make room and rights there");
}

std::string lastError() { return std::generic_category().message(errno); }

/// Keeps the signals of an impatient user waiting, so that no temporary file is left behind.
class SignalsHeldBack {
public:
    SignalsHeldBack()
    {
        sigset_t held;
        ::sigemptyset(&held);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
            ::sigaddset(&held, signal);
        ::sigprocmask(SIG_BLOCK, &held, &before_);
    }
    ~SignalsHeldBack() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }
    SignalsHeldBack(const SignalsHeldBack&) = delete;
    SignalsHeldBack& operator=(const SignalsHeldBack&) = delete;

private:
    sigset_t before_{};
};

/// A file under a temporary name, removed unless it got its own.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::filesystem::path& target)
        : path_((target.parent_path() / ".tpm-kit.XXXXXX").native()), file_(::mkstemp(path_.data()))
    {
    }
    ~TemporaryFile()
    {
        if (file_ && !renamed_)
            ::unlink(path_.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    bool isOpen() const { return static_cast<bool>(file_); }
    bool fill(std::string_view content)
    {
        return ::fchmod(file_.get(), outputMode) == 0 && writeWhole(file_.get(), content) &&
               ::fsync(file_.get()) == 0;
    }
    bool renameTo(const std::string& path)
    {
        renamed_ = ::rename(path_.c_str(), path.c_str()) == 0;
        return renamed_;
    }

private:
    std::string path_;
    OwnedFd file_;
    bool renamed_ = false;
};

/// Without this the name, but not the content, could be lost with the power; that is no failure of this run.
void synchronizeDirectory(const std::filesystem::path& target)
{
    const std::filesystem::path directory = target.has_parent_path() ? target.parent_path() : ".";
    const OwnedFd opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (opened)
        ::fsync(opened.get());
}

} // namespace

void writeOutputFile(const std::string& path, std::string_view content)
{
    struct stat status = {};
    if (::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
        fail(path, "something else than a regular file stands there");
    const SignalsHeldBack heldBack;
    TemporaryFile file(path);
    if (!file.isOpen() || !file.fill(content) || !file.renameTo(path))
        fail(path, lastError());
    synchronizeDirectory(path);
}

void requireOtherThan(const std::vector<std::string>& inputs, const std::string& output)
{
    struct stat there = {};
    if (output == "-" || ::stat(output.c_str(), &there) != 0)
        return;
    for (const std::string& input : inputs) {
        struct stat status = {};
        if (input != "-" && ::stat(input.c_str(), &status) == 0 && sameFile(status, there))
            throw Failure(WrongUsage, printable(output) + " is an input and would be overwritten",
                          "name another file with --output");
    }
}

} // namespace maintenance::kit
