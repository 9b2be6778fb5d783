#include "fs/directory_entries.h"

#include "fs/owned_fd.h"
#include "fs/trouble.h"

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>

namespace maintenance::rehearsed {
namespace {

using Names = std::vector<std::string>;

const std::string place = "/srv/listed";

OwnedFd openPlace(const std::string& path = place)
{
    return OwnedFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

constexpr std::size_t largeSize = 2000;

/// A directory that the system lists in several portions.
OwnedFd openLargePlace()
{
    makeDirectories(place);
    OwnedFd directory = openPlace();
    for (std::size_t i = 0; i < largeSize; ++i)
        OwnedFd(::openat(directory.get(), std::to_string(i).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    return directory;
}

/// The entries of an open directory, sorted; one odd name stands for a failure.
Names listing(int directory)
{
    auto entries = directoryEntries(directory);
    if (!entries)
        return {"cannot be listed"};
    std::sort(entries->begin(), entries->end());
    return *entries;
}

TEST(DirectoryEntries, AreAllNamesButTheDirectoryItselfAndTheOneAbove)
{
    const Names names = {std::string("\x01\xff\xfe"), " ", "...", "..x", ".hidden", "a", "line\nfeed",
                         std::string(255, 'n')};
    for (const std::string& name : names)
        writeFile(place + "/" + name, "");
    makeDirectories(place + "/dir/deeper");
    makeLink(place + "/link", "nowhere");
    makePipe(place + "/pipe");
    Names expected = names;
    expected.insert(expected.end(), {"dir", "link", "pipe"});
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(listing(openPlace().get()), expected);
}

TEST(DirectoryEntries, OfAnEmptyDirectoryAreNone)
{
    makeDirectories(place);
    EXPECT_EQ(listing(openPlace().get()), Names{});
}

TEST(DirectoryEntries, AreListedFromTheStartEachTime)
{
    for (const char* name : {"a", "b", "c"})
        writeFile(place + "/" + name, "");
    const OwnedFd directory = openPlace();
    const auto first = directoryEntries(directory.get());
    EXPECT_EQ(directoryEntries(directory.get()), first);
    writeFile(place + "/d", "");
    EXPECT_EQ(listing(directory.get()), (Names{"a", "b", "c", "d"}));
    EXPECT_NE(::fcntl(directory.get(), F_GETFD), -1);
}

TEST(DirectoryEntries, OfAVeryLargeDirectoryAreAllListed)
{
    const OwnedFd directory = openLargePlace();
    EXPECT_EQ(listing(directory.get()).size(), largeSize);
}

TEST(DirectoryEntries, OfARemovedDirectoryAreNone)
{
    makeDirectories(place);
    const OwnedFd directory = openPlace();
    removeAll(place);
    EXPECT_EQ(listing(directory.get()), Names{});
}

TEST(DirectoryEntries, OfSomethingElseCannotBeListed)
{
    writeFile(place, "a file");
    const OwnedFd file(::open(place.c_str(), O_RDONLY | O_CLOEXEC));
    const std::size_t before = openDescriptors();
    EXPECT_FALSE(directoryEntries(file.get()));
    EXPECT_FALSE(directoryEntries(-1));
    EXPECT_FALSE(directoryEntries(12345));
    EXPECT_EQ(openDescriptors(), before);
}

TEST(DirectoryEntries, ThatTheSystemDoesNotGiveCannotBeListed)
{
    const OwnedFd directory = openLargePlace();
    const auto call = [&] { return directoryEntries(directory.get()) ? "listed" : "not listed"; };
    for (const int error : {EIO, ENOMEM, EINTR}) {
        EXPECT_EQ(failingAt(SYS_getdents64, 1, error, call), returned("not listed"));
        // A listing that breaks off half-way is none.
        EXPECT_EQ(failingAt(SYS_getdents64, 2, error, call), returned("not listed"));
    }
    const auto duplicate = [](const SystemCall& made) {
        return made.arguments[1] == F_DUPFD_CLOEXEC ? EMFILE : 0;
    };
    EXPECT_EQ(during({SYS_fcntl}, duplicate, call), returned("not listed"));
    EXPECT_EQ(during(
                  {SYS_getdents64}, [](const SystemCall&) { return 0; }, call),
              returned("listed"));
}

TEST(DirectoryEntries, AreReadThroughADescriptorThatNoOtherProgramInherits)
{
    makeDirectories(place);
    const OwnedFd directory = openPlace();
    int duplicates = 0;
    const auto examine = [&](const SystemCall& made) {
        EXPECT_NE(made.arguments[1], static_cast<std::uint64_t>(F_DUPFD));
        duplicates += made.arguments[1] == F_DUPFD_CLOEXEC ? 1 : 0;
        return 0;
    };
    EXPECT_EQ(during({SYS_fcntl, SYS_dup}, examine, [&] { directoryEntries(directory.get()); }), returned());
    EXPECT_EQ(duplicates, 1);
}

} // namespace
} // namespace maintenance::rehearsed
