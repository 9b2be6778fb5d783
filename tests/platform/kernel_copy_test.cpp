#include "platform/kernel_copy.h"

#include "fs/owned_fd.h"
#include "support/disk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace maintenance::rehearsed {
namespace {

struct Files {
    OwnedFd from;
    OwnedFd to;
};

Files openFiles()
{
    writeFile("/srv/from", "0123456789");
    writeFile("/srv/to", "");
    return {OwnedFd(::open("/srv/from", O_RDONLY | O_CLOEXEC)),
            OwnedFd(::open("/srv/to", O_RDWR | O_CLOEXEC))};
}

off_t offset(const OwnedFd& file) { return ::lseek(file.get(), 0, SEEK_CUR); }

TEST(KernelCopy, GoesOnFromTheOffsetsToTheEnd)
{
    const Files files = openFiles();
    EXPECT_EQ(copyContent(files.from.get(), files.to.get(), 4), 4);
    EXPECT_EQ(offset(files.from), 4);
    EXPECT_EQ(offset(files.to), 4);
    EXPECT_EQ(copyContent(files.from.get(), files.to.get(), 100), 6);
    EXPECT_EQ(copyContent(files.from.get(), files.to.get(), 100), 0);
    EXPECT_EQ(readFile("/srv/to"), "0123456789");
}

TEST(KernelCopy, OfWhatIsNoFileIsLeftToTheCaller)
{
    const Files files = openFiles();
    const OwnedFd directory(::open("/srv", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(copyContent(directory.get(), files.to.get(), 10), -1);
    EXPECT_EQ(copyContent(files.from.get(), -1, 10), -1);
    EXPECT_EQ(offset(files.from), 0);
    EXPECT_EQ(readFile("/srv/to"), "");
}

TEST(SharedContent, IsTheWholeContentOrNothingAndMovesNoOffset)
{
    const Files files = openFiles();
    const bool shared = shareContent(files.from.get(), files.to.get());
    EXPECT_EQ(readFile("/srv/to"), shared ? "0123456789" : "");
    EXPECT_EQ(offset(files.from), 0);
    EXPECT_EQ(offset(files.to), 0);
    EXPECT_FALSE(shareContent(files.from.get(), -1));
}

} // namespace
} // namespace maintenance::rehearsed
