#include "platform/durable_sync.h"

#include "fs/owned_fd.h"
#include "support/child.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

constexpr std::array<Durability, 2> levels = {Durability::Copy, Durability::Record};

TEST(DurableSync, SynchronisesFilesAndDirectories)
{
    writeFile("/srv/file", "content");
    const OwnedFd file(::open("/srv/file", O_RDWR | O_CLOEXEC));
    const OwnedFd directory(::open("/srv", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const Durability level : levels) {
        EXPECT_TRUE(synchronize(file.get(), level));
        EXPECT_TRUE(synchronize(directory.get(), level));
    }
}

TEST(DurableSync, ReachesTheDeviceForEitherLevel)
{
    writeFile("/srv/file", "content");
    const OwnedFd file(::open("/srv/file", O_RDWR | O_CLOEXEC));
    for (const Durability level : levels) {
        int synchronized = 0;
        const auto examine = [&](const SystemCall& call) {
            EXPECT_EQ(static_cast<int>(call.arguments[0]), file.get());
            ++synchronized;
            return 0;
        };
        EXPECT_EQ(stopping({SYS_fsync}, examine,
                           [&] { return synchronize(file.get(), level) ? "done" : "refused"; }),
                  returned("done"));
        EXPECT_EQ(synchronized, 1);
    }
}

TEST(DurableSync, TellsWhyTheDeviceRefuses)
{
    writeFile("/srv/file", "content");
    const OwnedFd file(::open("/srv/file", O_RDWR | O_CLOEXEC));
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const OwnedFd reader(ends[0]);
    const OwnedFd writer(ends[1]);
    for (const Durability level : levels) {
        EXPECT_FALSE(synchronize(-1, level));
        EXPECT_EQ(errno, EBADF);
        EXPECT_FALSE(synchronize(writer.get(), level));
        EXPECT_EQ(errno, EINVAL);
        for (const int error : {EIO, ENOSPC, EINTR})
            EXPECT_EQ(failing(SYS_fsync, 1, error,
                              [&] {
                                  const bool done = synchronize(file.get(), level);
                                  return done ? std::string("done") : std::to_string(errno);
                              }),
                      returned(std::to_string(error)));
    }
}

} // namespace
} // namespace maintenance::rehearsed
