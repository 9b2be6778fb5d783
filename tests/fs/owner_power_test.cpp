#include "fs/owner_power.h"

#include "fs/owned_fd.h"
#include "fs/trouble.h"
#include "support/scene.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>

namespace maintenance::rehearsed {
namespace {

OwnedFd openDirectory(const std::string& path)
{
    return OwnedFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

/// The real, effective and saved user ids of this process.
std::string power()
{
    std::array<uid_t, 3> ids{};
    ::getresuid(&ids[0], &ids[1], &ids[2]);
    return std::to_string(ids[0]) + " " + std::to_string(ids[1]) + " " + std::to_string(ids[2]);
}

/// The ids during and after a call for `owner` in a directory.
std::string powers(const std::string& directory, uid_t owner)
{
    const OwnedFd opened = openDirectory(directory);
    std::string during;
    withOwnersPower(opened.get(), owner, [&] {
        during = power();
        return 0;
    });
    return during + ", then " + power();
}

TEST(OwnersPower, IsTakenOnByRootInTheOwnersDirectoryForOneCall)
{
    EXPECT_EQ(powers("/Users/player", 501), "0 501 0, then 0 0 0");
    EXPECT_EQ(powers("/Users/other", 502), "0 502 0, then 0 0 0");
}

TEST(OwnersPower, IsTakenOnByRootWhereOtherAccountsCanExchangeNames)
{
    EXPECT_EQ(powers("/Users/other", 501), "0 501 0, then 0 0 0");
    EXPECT_EQ(powers("/tmp", 501), "0 501 0, then 0 0 0");
}

TEST(OwnersPower, IsNotTakenOnWhereOnlyRootCanExchangeNames)
{
    EXPECT_EQ(powers("/Users", 501), "0 0 0, then 0 0 0");
    EXPECT_EQ(powers("/Users/player", 0), "0 0 0, then 0 0 0");
    EXPECT_EQ(powers("/", 0), "0 0 0, then 0 0 0");
}

TEST(OwnersPower, OfAnOrdinaryAccountIsItsOwn)
{
    const auto own = [](const std::string& directory, uid_t owner) {
        return asAccount(playerUid, [&] { return powers(directory, owner); });
    };
    EXPECT_EQ(own("/Users/player", 501), returned("501 501 501, then 501 501 501"));
    EXPECT_EQ(own("/Users", 0), returned("501 501 501, then 501 501 501"));
}

TEST(OwnersPower, PassesResultAndErrorOn)
{
    const OwnedFd directory = openDirectory("/Users/player");
    const auto resultOfCall = [&](int result, int error) {
        errno = 0;
        const int got = withOwnersPower(directory.get(), playerUid, [&] {
            errno = error;
            return result;
        });
        return std::pair(got, errno);
    };
    EXPECT_EQ(resultOfCall(7, ENOSPC), std::pair(7, ENOSPC));
    EXPECT_EQ(resultOfCall(-1, EEXIST), std::pair(-1, EEXIST));
}

TEST(OwnersPower, MakesWhatIsCreatedTheOwnersFromItsFirstMoment)
{
    const OwnedFd directory = openDirectory("/Users/player");
    const OwnedFd made(withOwnersPower(directory.get(), playerUid, [&] {
        return ::openat(directory.get(), "made", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    }));
    EXPECT_TRUE(made);
    EXPECT_EQ(describe("/Users/player/made"), "file 501 0600");
}

TEST(OwnersPower, FindsNoRootBehindAPlantedLink)
{
    writeFile("/etc/precious", "precious", {rootUid, 0600});
    makeLink("/Users/player/link", "/etc/precious");
    const OwnedFd directory = openDirectory("/Users/player");
    const OwnedFd opened(withOwnersPower(directory.get(), playerUid, [&] {
        return ::openat(directory.get(), "link", O_WRONLY | O_TRUNC | O_CLOEXEC);
    }));
    EXPECT_FALSE(opened);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(readFile("/etc/precious"), "precious");
}

TEST(OwnersPower, ThatCannotBeTakenOnEndsBeforeTheCall)
{
    const OwnedFd directory = openDirectory("/Users/player");
    const auto call = [&] {
        withOwnersPower(directory.get(), playerUid, [&] { return ::mkdirat(directory.get(), "made", 0755); });
    };
    for (const int error : {EAGAIN, EPERM}) {
        const Ending ending = failingAt(SYS_setresuid, 1, error, call);
        EXPECT_EQ(ending.kind, "system error");
        EXPECT_TRUE(ending.text.starts_with("cannot act as the scope's owner")) << ending;
        EXPECT_FALSE(isThere("/Users/player/made"));
    }
}

TEST(OwnersPower, IsNotReplacedByRootsWhenTheDirectoryCannotBeExamined)
{
    const OwnedFd directory = openDirectory("/Users/player");
    const auto fail = [](const SystemCall& made) {
        return isFstat(made) && openPath(made) == "/Users/player" ? EIO : 0;
    };
    const Ending ending = during({SYS_newfstatat, SYS_fstat}, fail, [&] {
        const int made = withOwnersPower(directory.get(), playerUid,
                                         [&] { return ::mkdirat(directory.get(), "made", 0755); });
        return std::to_string(made) + " " + std::to_string(errno);
    });
    EXPECT_EQ(ending, returned("-1 " + std::to_string(EIO)));
    EXPECT_FALSE(isThere("/Users/player/made"));
}

/// Makes every attempt of this process to become root again fail.
void forbidBecomingRoot()
{
    std::vector<sock_filter> filter = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_setresuid, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[1])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) != 0)
        ::_exit(99);
}

TEST(OwnersPower, ThatCannotBeGivenBackEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "fast");
    const OwnedFd directory = openDirectory("/Users/player");
    EXPECT_EXIT(
        {
            forbidBecomingRoot();
            withOwnersPower(directory.get(), playerUid, [] { return 0; });
        },
        ::testing::ExitedWithCode(70), "^cannot take back the process's own power\n$");
}

TEST(OwnersPower, OfARunIsItsOwnAgainAfterEveryCommand)
{
    // What the program starts while it works in the home runs with root's power, not with the account's.
    instructPkgutil("nth=1-3 do before=\"/usr/bin/id -u >> /srv/powers; /usr/bin/id -ru >> /srv/powers\"\n");
    makeDirectories("/srv");
    const Plugin alpha = plugin("alpha", "1.0");
    install("user", commonPackage());
    install("user", alpha);
    const std::string id = publish(Work("user").brings(alpha, "1.0"), "repair-1");
    EXPECT_EQ(run({"prepare-move", "user", id}).status, 0);
    std::istringstream lines(readFile("/srv/powers"));
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count)
        EXPECT_EQ(line, "0");
    EXPECT_GT(count, 0);
}

} // namespace
} // namespace maintenance::rehearsed
