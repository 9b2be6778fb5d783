#pragma once

#include <cerrno>
#include <optional>
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

/// Owns one open file descriptor and closes it when it goes out of scope; empty is -1.
/// Closing keeps errno, so that a caller still sees why an earlier call failed.
class OwnedFd {
public:
    explicit OwnedFd(int fd = -1) noexcept : fd_(fd) {}
    OwnedFd(OwnedFd&& other) noexcept : fd_(other.release()) {}
    OwnedFd& operator=(OwnedFd other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~OwnedFd()
    {
        if (fd_ < 0)
            return;
        const int saved = errno;
        ::close(fd_);
        errno = saved;
    }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    [[nodiscard]] int get() const noexcept { return fd_; }
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }

private:
    int fd_;
};

/// Reads everything from `fd`, which is borrowed, up to its end. Returns false with errno set when that
/// fails.
bool readAll(int fd, std::string& content);

/// Returns the content of the regular file at `path`, or nothing, with errno set, when it cannot be opened or
/// read. Never waits, also where a pipe was put in the file's place.
std::optional<std::string> readFile(const std::string& path);

/// Writes all of `content` to `fd`, which is borrowed. Returns false with errno set when that fails.
bool writeAll(int fd, const std::string& content);

/// Creates the file at `path`, or empties the one that is there, and writes `content` to it; not atomic.
/// Sets exactly `mode`, whatever the umask. Returns false with errno set when that fails.
bool writeFile(const std::string& path, const std::string& content, mode_t mode);
