#include "platform/stat_times.h"

#include "support/disk.h"

#include <array>
#include <fcntl.h>
#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

constexpr const char* file = "/srv/file";

struct stat statusOfFile()
{
    struct stat status = {};
    EXPECT_EQ(::stat(file, &status), 0);
    return status;
}

timespec now()
{
    timespec time = {};
    ::clock_gettime(CLOCK_REALTIME, &time);
    return time;
}

bool isBefore(const timespec& one, const timespec& other)
{
    return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec < other.tv_nsec;
}

TEST(StatTimes, TellContentFromStatusChangesToTheNanosecond)
{
    writeFile(file, "content");
    const std::array<timespec, 2> set = {timespec{1111111111, 222222222}, timespec{1333333333, 444444444}};
    // The file system's clock ticks more slowly than the one that is asked here.
    timespec earlier = now();
    earlier.tv_sec -= 1;
    ASSERT_EQ(::utimensat(AT_FDCWD, file, set.data(), 0), 0);
    const struct stat status = statusOfFile();
    EXPECT_EQ(modificationTime(status).tv_sec, 1333333333);
    EXPECT_EQ(modificationTime(status).tv_nsec, 444444444);
    EXPECT_TRUE(isBefore(earlier, statusChangeTime(status)));
    EXPECT_FALSE(isBefore(now(), statusChangeTime(status)));
}

TEST(StatTimes, OfAStatusChangeAloneLeaveTheContentsTime)
{
    writeFile(file, "content");
    const std::array<timespec, 2> set = {timespec{1000000000, 1}, timespec{1000000000, 1}};
    ASSERT_EQ(::utimensat(AT_FDCWD, file, set.data(), 0), 0);
    setMode(file, 0600);
    EXPECT_EQ(modificationTime(statusOfFile()).tv_sec, 1000000000);
    EXPECT_EQ(modificationTime(statusOfFile()).tv_nsec, 1);
    EXPECT_GT(statusChangeTime(statusOfFile()).tv_sec, 1000000000);
}

} // namespace
} // namespace maintenance::rehearsed
