#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace maintenance {

/// Owns one open file descriptor and closes it when it goes out of scope; an empty one holds -1.
/// It moves and never copies. Closing keeps errno, so that a caller still sees why a call failed.
class OwnedFd {
public:
    explicit OwnedFd(int descriptor = -1) noexcept : descriptor_(descriptor) {}
    OwnedFd(OwnedFd&& other) noexcept : descriptor_(other.release()) {}
    OwnedFd& operator=(OwnedFd&& other) noexcept
    {
        if (this != &other) {
            close();
            descriptor_ = other.release();
        }
        return *this;
    }
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;
    ~OwnedFd() { close(); }

    explicit operator bool() const noexcept { return descriptor_ >= 0; }
    /// The descriptor, lent to the caller.
    int get() const noexcept { return descriptor_; }
    /// The descriptor, given away: the caller closes it.
    [[nodiscard]] int release() noexcept { return std::exchange(descriptor_, -1); }
    /// Closes the descriptor now, if one is held.
    void close() noexcept
    {
        if (descriptor_ < 0)
            return;
        const int saved = errno;
        ::close(release());
        errno = saved;
    }

private:
    int descriptor_;
};

} // namespace maintenance
