#include "kit/report/input_file.h"

#include "fs/owned_fd.h"
#include "kit/report/failure.h"
#include "kit/report/printable.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace maintenance::kit {

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& reason)
{
    throw Failure(NoInput, printable(path) + " cannot be read: " + reason, "check the name and the rights");
}

std::string lastError() { return std::generic_category().message(errno); }

OwnedFd openInput(const std::string& path)
{
    if (path == "-")
        return OwnedFd(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
    return OwnedFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

} // namespace

InputFile readInputFile(const std::string& path, std::size_t largest)
{
    const OwnedFd file = openInput(path);
    InputFile input{{}, {}};
    if (!file || ::fstat(file.get(), &input.status) != 0)
        fail(path, lastError());
    if (S_ISDIR(input.status.st_mode))
        fail(path, "it is a directory");
    std::array<char, 65536> chunk;
    for (;;) {
        const ssize_t count = ::read(file.get(), chunk.data(), chunk.size());
        if (count == 0)
            return input;
        if (count < 0 && errno != EINTR)
            fail(path, lastError());
        if (count > 0)
            input.content.append(chunk.data(), static_cast<std::size_t>(count));
        if (input.content.size() > largest)
            throw Failure(Findings, printable(path) + " is larger than " + byteCount(largest),
                          "none of the tool's files is so large; check the name");
    }
}

} // namespace maintenance::kit
